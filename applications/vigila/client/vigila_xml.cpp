#include "vigila/client/vigila_xml.h"

#include <algorithm>
#include <cstring>

namespace vigila::client {

namespace {

constexpr std::string_view kWhitespace = " \r\n\t";
constexpr size_t kWindow = 256;
constexpr size_t kAttributesWindow = 1024;
// How much of a chunk is taken in at a time, so that a large chunk is never copied whole.
constexpr size_t kSlice = 4096;
constexpr size_t npos = std::string_view::npos;

std::string_view LocalName(std::string_view name) {
  const size_t colon = name.find(':');
  return colon == npos ? name : name.substr(colon + 1);
}

}  // namespace

struct VigilaXml::Entry {
  const char* name;  // an element's local name, an attribute's behind "@", or null: the own close
  uint32_t target;
  uint32_t slot;
};

struct VigilaXml::State {
  int32_t code;
  const char* own_element;
  Entry entries[4];
  uint32_t entry_count;
  Entry closing;
};

// Deliberate: "@DummyAttr" matches nothing that anybody sends. It makes the Envelope's attributes
// be read one by one instead of being skipped, so that a long list of namespaces does not overflow
// the window for skipped attributes.
constexpr VigilaXml::State VigilaXml::kStates[] = {
    {0, nullptr, {{"Envelope", 1, kIgnored}}, 1, {nullptr, 0, kIgnored}},
    {0,
     "Envelope",
     {{"@DummyAttr", 1, kIgnored}, {"Header", 2, kIgnored}},
     2,
     {nullptr, 0, kIgnored}},
    {0, "Header", {{"Security", 3, kIgnored}}, 1, {nullptr, 1, kIgnored}},
    {1, "Security", {{"UsernameToken", 4, kIgnored}}, 1, {nullptr, 6, kIgnored}},
    {0,
     "UsernameToken",
     {{"Username", 4, kUsername},
      {"Password", 5, kIgnored},
      {"Nonce", 4, kNonce},
      {"Created", 4, kCreated}},
     4,
     {nullptr, 3, kIgnored}},
    {0, "Password", {{"@Type", 5, kType}}, 1, {nullptr, 4, kPassword}},
    {0, nullptr, {}, 0, {nullptr, 6, kIgnored}},
};

VigilaXml::VigilaXml() = default;

VigilaXml::~VigilaXml() {
  for (char* field : fields_) delete[] field;
}

bool VigilaXml::Parse(const char* data, unsigned long length) {
  if (stopped_ || data == nullptr) return stopped_;
  while (length > 0 && !stopped_) {
    const size_t slice = std::min<size_t>(length, kSlice);
    buffer_.append(data, slice);
    data += slice;
    length -= slice;
    while (RunPhase()) {
    }
    buffer_.erase(0, consumed_);
    consumed_ = 0;
  }
  return stopped_;
}

bool VigilaXml::RunPhase() {
  switch (phase_) {
    case kElementTag:
      return ProcessElementTag();
    case kElementContent:
      return ProcessElementContent();
    case kElementCleanup:
      return ProcessElementCleanup();
    case kEmptyElement:
      return ProcessEmptyElement();
    case kElementAttributes:
      return ProcessElementAttributes();
    case kAttributeContent:
      return ProcessAttributeContent();
    default:
      return ProcessAttributeCleanup();
  }
}

std::string_view VigilaXml::ElementWithoutNs() const {
  return open_elements_.empty() ? std::string_view() : LocalName(open_elements_.back());
}

bool VigilaXml::Stop() {
  stopped_ = true;
  return false;
}

size_t VigilaXml::FindWithin(size_t position, size_t window) {
  if (position < window) return position;  // npos is never within
  if (Rest().size() > window) Stop();
  return npos;
}

bool VigilaXml::SkipWhitespace() {
  const size_t first = Rest().find_first_not_of(kWhitespace);
  if (first < kWindow) {
    Consume(first);
    return true;
  }
  if (Rest().size() > kWindow) {
    Stop();
    Consume(Rest().size());
  }
  return false;
}

// Deliberate: anything but "<" where a tag is due stops the reader, a byte order mark included.
bool VigilaXml::ProcessElementTag() {
  if (!SkipWhitespace()) return false;
  if (Rest().front() != '<') return Stop();
  const size_t start = FindWithin(Rest().find_first_not_of(kWhitespace, 1), kWindow);
  if (start == npos) return false;
  if (Rest()[start] == '/') {
    phase_ = kElementCleanup;
    return true;
  }
  const size_t end = FindWithin(Rest().find_first_of("/> \r\n\t", start), kWindow);
  if (end == npos) return false;
  return OpenElement(Rest().substr(start, end - start)) && FinishTag(end);
}

// Pushes the name; decides whether this is the XML declaration.
bool VigilaXml::OpenElement(std::string_view name) {
  if (LocalName(name).empty()) return Stop();
  if (open_elements_.size() == kMaximumOpenElements ||
      open_name_bytes_ + name.size() > kMaximumOpenNameBytes) {
    return Stop();
  }
  open_elements_.emplace_back(name);
  open_name_bytes_ += name.size();
  if (!name.starts_with("?xml")) prolog_ = false;
  return true;
}

// What ends the tag's name decides the phase; only then does the name move the state.
bool VigilaXml::FinishTag(size_t name_end) {
  const std::string_view rest = Rest();
  const char end = rest[name_end];
  if (end == '/') {
    if (rest.size() == name_end + 1) {
      CloseElement();  // seen again, whole, when the next byte is there
      return false;
    }
    if (rest[name_end + 1] != '>' || prolog_) return Stop();
    Consume(name_end + 2);
    phase_ = kEmptyElement;
  } else if (end == '>') {
    if (prolog_ && rest[name_end - 1] != '?') return Stop();
    Consume(name_end + 1);
    phase_ = kElementContent;
  } else {
    Consume(name_end);
    phase_ = kElementAttributes;
  }
  if (prolog_) return true;
  if (const Entry* entry = FindElementEntry(ElementWithoutNs())) EnterState(entry->target);
  return !stopped_;
}

void VigilaXml::CloseElement() {
  open_name_bytes_ -= open_elements_.back().size();
  open_elements_.pop_back();
}

void VigilaXml::EnterState(uint32_t state) {
  state_ = state;
  result_ = kStates[state].code;
  if (kStates[state].entry_count == 0) Stop();
}

const VigilaXml::Entry* VigilaXml::FindElementEntry(std::string_view local_name) const {
  const State& state = kStates[state_];
  for (uint32_t i = 0; i < state.entry_count; ++i) {
    const Entry& entry = state.entries[i];
    if (entry.name[0] != '@' && local_name == entry.name) return &entry;
  }
  return nullptr;
}

const VigilaXml::Entry* VigilaXml::FindAttributeEntry(std::string_view name) const {
  const State& state = kStates[state_];
  for (uint32_t i = 0; i < state.entry_count; ++i) {
    const Entry& entry = state.entries[i];
    if (entry.name[0] == '@' && name == entry.name + 1) return &entry;
  }
  return nullptr;
}

bool VigilaXml::StateReadsAttributes() const {
  const State& state = kStates[state_];
  return state.entry_count > 0 && state.entries[0].name[0] == '@';
}

bool VigilaXml::ProcessElementAttributes() {
  if (prolog_ || !StateReadsAttributes()) return SkipAttributes();
  attribute_name_.clear();
  if (!SkipWhitespace()) return false;
  if (Rest().size() < 2) return false;
  if (Rest()[0] == '/') {
    if (Rest()[1] != '>') return Stop();
    Consume(2);
    phase_ = kEmptyElement;
    return true;
  }
  if (Rest()[0] == '>') {
    Consume(1);
    phase_ = kElementContent;
    return true;
  }
  return ReadAttributeName();
}

// Deliberate: the first ">" ends the tag, also one inside an attribute value.
bool VigilaXml::SkipAttributes() {
  const size_t end = FindWithin(Rest().find('>'), kAttributesWindow);
  if (end == npos) return false;
  const char before = Rest()[end - 1];  // the blank that ended the name is still in the buffer
  Consume(end + 1);
  if (prolog_) {
    if (before != '?') return Stop();
    CloseElement();
    prolog_ = false;
    phase_ = kElementTag;
  } else {
    phase_ = before == '/' ? kEmptyElement : kElementContent;
  }
  return true;
}

// Deliberate: a prefix is cut at the first colon without a look at it, so that xmlns:Type reads as
// Type.
bool VigilaXml::ReadAttributeName() {
  const size_t name_end = FindWithin(Rest().find_first_of("= \r\n\t"), kWindow);
  if (name_end == npos) return false;
  const std::string_view name = LocalName(Rest().substr(0, name_end));
  if (name.empty()) return Stop();
  const size_t equals = FindWithin(Rest().find_first_not_of(kWhitespace, name_end), kWindow);
  if (equals == npos) return false;
  if (Rest()[equals] != '=') return Stop();
  const size_t quote = FindWithin(Rest().find_first_not_of(kWhitespace, equals + 1), kWindow);
  if (quote == npos) return false;
  if (Rest()[quote] != '"') return Stop();
  attribute_name_ = name;
  Consume(quote + 1);
  phase_ = kAttributeContent;
  return true;
}

bool VigilaXml::ProcessAttributeContent() {
  const Entry* entry = FindAttributeEntry(attribute_name_);
  if (entry != nullptr && entry->slot != kIgnored) {
    const size_t end = FindWithin(Rest().find('"'), kWindow);
    if (end == npos) return false;
    if (!Store(entry->slot, Rest().substr(0, end))) return false;
  }
  phase_ = kAttributeCleanup;
  return true;
}

bool VigilaXml::ProcessAttributeCleanup() {
  const size_t quote = Rest().find('"');
  if (quote == npos) {
    Consume(Rest().size());
    return false;
  }
  Consume(quote + 1);
  phase_ = kElementAttributes;
  return true;
}

bool VigilaXml::Store(uint32_t slot, std::string_view value) {
  if (fields_[slot] != nullptr) return Stop();
  char* copy = new char[value.size() + 1];
  std::memcpy(copy, value.data(), value.size());
  copy[value.size()] = '\0';
  fields_[slot] = copy;
  return true;
}

// Deliberate: only a repeated text stops the reader. An element without text leaves its field null,
// however often it comes.
bool VigilaXml::ProcessElementContent() {
  if (!SkipWhitespace()) return false;
  const size_t text_end = FindWithin(Rest().find('<'), kWindow);
  if (text_end == npos) return false;
  if (prolog_) {
    CloseElement();
    prolog_ = false;
    phase_ = kElementTag;
    return true;
  }
  if (text_end == 0) {
    if (Rest().size() < 2) return false;
    phase_ = kElementTag;
    return true;
  }
  // Deliberate: the text of an unknown child counts for the state's own element; so an unknown
  // child of Password supplies the password.
  const Entry* entry = FindElementEntry(ElementWithoutNs());
  const uint32_t slot = entry != nullptr ? entry->slot : kStates[state_].closing.slot;
  if (slot != kIgnored) {
    const size_t last = Rest().substr(0, text_end).find_last_not_of(kWhitespace);
    if (!Store(slot, Rest().substr(0, last + 1))) return false;
  }
  phase_ = kElementCleanup;
  return true;
}

// Deliberate: names are compared as written, prefix and blanks included, so "</Username >" closes
// nothing; and after a closing tag that does not match, the next closing tag is looked for.
bool VigilaXml::ProcessElementCleanup() {
  const size_t tag = Rest().find('<');
  if (tag == npos) {
    Consume(Rest().size());
    return false;
  }
  Consume(tag);
  if (Rest().size() < 2) return false;
  if (Rest()[1] != '/') {
    Consume(2);
    return true;
  }
  const size_t end = FindWithin(Rest().find('>'), kWindow);
  if (end == npos) return false;
  const bool matches =
      !open_elements_.empty() && Rest().substr(2, end - 2) == open_elements_.back();
  Consume(end + 1);
  return matches ? ProcessEmptyElement() : true;
}

// Deliberate: elements are told apart by name, not by depth, so that a Header inside the Header
// closes it for what follows.
bool VigilaXml::ProcessEmptyElement() {
  if (prolog_ || open_elements_.empty()) return Stop();
  phase_ = kElementTag;
  const State& state = kStates[state_];
  const std::string_view name = ElementWithoutNs();
  const Entry* entry = FindElementEntry(name);
  if (entry == nullptr && state.own_element != nullptr && name == state.own_element) {
    entry = &state.closing;
  }
  if (entry != nullptr) EnterState(entry->target);
  if (stopped_) return false;
  CloseElement();
  return true;
}

}  // namespace vigila::client
