#include "tevra/msgbus/wire/frame.h"

#include <utility>

namespace tevra::msgbus::wire {
namespace {

// A value of two bytes on the wire takes twenty times that in memory. No message has a dozen.
constexpr size_t kMaxValues = 64;

constexpr char kBoolean = 'b';
constexpr char kSigned = 'i';
constexpr char kUnsigned = 'u';
constexpr char kText = 's';
constexpr char kList = 'l';

// Takes one thing after the other from the front; each answers false when it is not all there.
class Parser final {
 public:
  explicit Parser(std::string_view bytes) : left_(bytes) {}

  bool AtEnd() const { return left_.empty(); }
  bool Byte(uint8_t* value) {
    if (left_.empty()) return false;
    *value = static_cast<uint8_t>(left_.front());
    left_.remove_prefix(1);
    return true;
  }
  bool Number(uint32_t* value) {
    if (left_.size() < kLengthBytes) return false;
    *value = LoadNumber(left_.data());
    left_.remove_prefix(kLengthBytes);
    return true;
  }
  bool Text(std::string_view* text) {
    uint32_t length = 0;
    if (!Number(&length) || length > left_.size()) return false;
    *text = left_.substr(0, length);
    left_.remove_prefix(length);
    return true;
  }
  std::string_view Rest() const { return left_; }

  bool Value(MsgBusMsg* message) {
    uint8_t type = 0;
    if (!Byte(&type)) return false;
    switch (static_cast<char>(type)) {
      case kBoolean:
        return BooleanInto(message);
      case kSigned:
        return NumberInto<int32_t>(message);
      case kUnsigned:
        return NumberInto<uint32_t>(message);
      case kText:
        return TextInto(message);
      case kList:
        return ListInto(message);
    }
    return false;
  }

 private:
  bool BooleanInto(MsgBusMsg* message) {
    uint8_t value = 0;
    if (!Byte(&value) || value > 1) return false;
    message->Append(value == 1);
    return true;
  }
  template <typename Integer>
  bool NumberInto(MsgBusMsg* message) {
    uint32_t value = 0;
    if (!Number(&value)) return false;
    message->Append(static_cast<Integer>(value));
    return true;
  }
  bool TextInto(MsgBusMsg* message) {
    std::string_view text;
    if (!Text(&text)) return false;
    message->Append(MsgBusMsg::Value(std::in_place_type<std::string>, text));
    return true;
  }
  bool ListInto(MsgBusMsg* message) {
    uint32_t count = 0;
    // A text takes four bytes at the least, so a count that lies costs no memory.
    if (!Number(&count) || count > left_.size() / kLengthBytes) return false;
    std::vector<std::string> list;
    list.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
      std::string_view text;
      if (!Text(&text)) return false;
      list.emplace_back(text);
    }
    message->Append(std::move(list));
    return true;
  }

  std::string_view left_;
};

void StoreNumber(char* bytes, uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) *bytes++ = static_cast<char>(value >> shift);
}

void AppendNumber(std::string* out, uint32_t value) {
  char bytes[kLengthBytes];
  StoreNumber(bytes, value);
  out->append(bytes, sizeof bytes);
}

void AppendText(std::string* out, std::string_view text) {
  AppendNumber(out, static_cast<uint32_t>(text.size()));
  out->append(text);
}

// What a value takes at the most.
struct Sizer {
  size_t operator()(const std::string& value) const { return 1 + kLengthBytes + value.size(); }
  size_t operator()(const std::vector<std::string>& value) const {
    size_t size = 1 + kLengthBytes;
    for (const std::string& entry : value) size += kLengthBytes + entry.size();
    return size;
  }
  template <typename Number>
  size_t operator()(Number) const {
    return 1 + kLengthBytes;
  }
};

struct Appender {
  std::string* out;

  void operator()(bool value) const {
    *out += kBoolean;
    *out += value ? '\1' : '\0';
  }
  void operator()(int32_t value) const {
    *out += kSigned;
    AppendNumber(out, static_cast<uint32_t>(value));
  }
  void operator()(uint32_t value) const {
    *out += kUnsigned;
    AppendNumber(out, value);
  }
  void operator()(const std::string& value) const {
    *out += kText;
    AppendText(out, value);
  }
  void operator()(const std::vector<std::string>& value) const {
    *out += kList;
    AppendNumber(out, static_cast<uint32_t>(value.size()));
    for (const std::string& entry : value) AppendText(out, entry);
  }
};

}  // namespace

uint32_t LoadNumber(const char* bytes) {
  uint32_t value = 0;
  for (int i = 0; i < 4; ++i) value |= uint32_t{static_cast<uint8_t>(bytes[i])} << (8 * i);
  return value;
}

std::optional<Frame> ParseBody(std::string_view body) {
  Parser parser(body);
  Frame frame;
  uint8_t kind = 0;
  const bool whole = parser.Byte(&kind) && parser.Byte(&frame.flags) &&
                     parser.Number(&frame.serial) && parser.Text(&frame.interface) &&
                     parser.Text(&frame.member);
  frame.kind = static_cast<Kind>(kind);
  if (!whole || frame.kind < Kind::kHello || frame.kind > Kind::kSignal) return std::nullopt;
  frame.values = parser.Rest();
  return frame;
}

bool ReadValues(std::string_view values, MsgBusMsg* message) {
  Parser parser(values);
  while (!parser.AtEnd()) {
    if (message->Body().size() == kMaxValues || !parser.Value(message)) return false;
  }
  return true;
}

void AppendFrame(std::string* out, const Frame& frame,
                 const std::vector<MsgBusMsg::Value>& values) {
  const size_t start = out->size();
  // At once: a buffer that grows leaves parts of a message behind where it was.
  size_t size = start + 4 * kLengthBytes + 2 + frame.interface.size() + frame.member.size();
  for (const MsgBusMsg::Value& value : values) size += std::visit(Sizer(), value);
  out->reserve(size);
  AppendNumber(out, 0);
  *out += static_cast<char>(frame.kind);
  *out += static_cast<char>(frame.flags);
  AppendNumber(out, frame.serial);
  AppendText(out, frame.interface);
  AppendText(out, frame.member);
  for (const MsgBusMsg::Value& value : values) std::visit(Appender{out}, value);
  StoreNumber(out->data() + start, static_cast<uint32_t>(out->size() - start - kLengthBytes));
}

}  // namespace tevra::msgbus::wire
