#ifndef VIGILA_CLIENT_VIGILA_XML_H_
#define VIGILA_CLIENT_VIGILA_XML_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vigila::client {

// Reads the UsernameToken out of the security header of a SOAP envelope, from chunks as they
// arrive, and stops when the header's Security element has been closed: the body is never looked
// at.
//
// Not a general XML reader. Values are the raw bytes between the tags: no entities, CDATA or
// comments are decoded, prefixes are cut off and namespaces never looked at, attribute values want
// double quotes. Every token must fit a window: a text, an attribute value or a run of white space
// 255 bytes, a tag name 254, the attributes of an element that are skipped 1,023. Open elements are
// bounded too. Anything beyond, and everything malformed, stops the reader.
//
// However the input is cut into chunks, the fields are the same. Memory is bounded by the windows,
// the fields and the open names; time is linear in the input. One thread at a time.
class __attribute__((visibility("default"))) VigilaXml {
 public:
  static constexpr size_t kMaximumOpenElements = 1024;
  static constexpr size_t kMaximumOpenNameBytes = 64 * 1024;

  VigilaXml();
  ~VigilaXml();
  VigilaXml(const VigilaXml&) = delete;
  VigilaXml& operator=(const VigilaXml&) = delete;

  // Takes the next chunk. True once the reader has stopped, at the end of the header or at
  // something malformed (the fields tell which); further chunks are then ignored.
  bool Parse(const char* data, unsigned long length);

  // 2 before an Envelope has opened, 1 inside Security but outside UsernameToken, else 0.
  // Deliberate: 0 stands for a complete header as for many failures; the fields tell which.
  int Result() const { return result_; }
  bool Stopped() const { return stopped_; }
  // The fields, null when absent. Owned by the reader.
  const char* Username() const { return fields_[kUsername]; }
  const char* Password() const { return fields_[kPassword]; }
  const char* Type() const { return fields_[kType]; }
  const char* Nonce() const { return fields_[kNonce]; }
  const char* Created() const { return fields_[kCreated]; }

  // Name of the innermost open element after its first ":"; empty when none is open.
  std::string_view ElementWithoutNs() const;

 private:
  enum Slot { kIgnored = 0, kUsername = 1, kPassword, kType, kNonce, kCreated, kSlotCount };
  enum Phase {
    kElementTag = 0,
    kElementContent,
    kElementCleanup,
    kEmptyElement,
    kElementAttributes,
    kAttributeContent,
    kAttributeCleanup,
  };
  struct Entry;
  struct State;
  static const State kStates[];

  bool RunPhase();
  // Each returns true when the loop may go on, false when more input is needed or the reader
  // stopped.
  bool ProcessElementTag();
  bool ProcessElementContent();
  bool ProcessElementCleanup();
  bool ProcessEmptyElement();
  bool ProcessElementAttributes();
  bool ProcessAttributeContent();
  bool ProcessAttributeCleanup();
  bool SkipWhitespace();

  bool SkipAttributes();
  bool OpenElement(std::string_view name);
  bool FinishTag(size_t name_end);
  void CloseElement();
  bool ReadAttributeName();
  void EnterState(uint32_t state);
  bool Store(uint32_t slot, std::string_view value);
  bool Stop();

  // Position of a delimiter within the window, or npos after waiting or stopping was decided.
  size_t FindWithin(size_t position, size_t window);
  const Entry* FindElementEntry(std::string_view local_name) const;
  const Entry* FindAttributeEntry(std::string_view name) const;
  bool StateReadsAttributes() const;
  std::string_view Rest() const { return std::string_view(buffer_).substr(consumed_); }
  void Consume(size_t count) { consumed_ += count; }

  std::string buffer_;
  size_t consumed_ = 0;
  int32_t result_ = 2;
  char* fields_[kSlotCount] = {};
  uint32_t state_ = 0;
  int32_t phase_ = kElementTag;
  bool prolog_ = true;
  bool stopped_ = false;
  std::vector<std::string> open_elements_;
  size_t open_name_bytes_ = 0;
  std::string attribute_name_;
};

}  // namespace vigila::client

#endif  // VIGILA_CLIENT_VIGILA_XML_H_
