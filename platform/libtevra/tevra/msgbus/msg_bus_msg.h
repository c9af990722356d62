#ifndef TEVRA_MSGBUS_MSG_BUS_MSG_H_
#define TEVRA_MSGBUS_MSG_BUS_MSG_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace tevra::msgbus {

// The fixed part of a D-Bus message header in big-endian form: byte order, type, flags, protocol
// version, body length (bytes 4 to 7), serial (8 to 11), length of the header fields (12 to 15).
struct DBusMessage {
  uint8_t header[16];
};

// Who sent a message, as the transport knows it. A message made in this process carries the
// process's own identity.
struct Credentials {
  uid_t uid;
  std::vector<gid_t> groups;  // effective group and supplementary groups
  pid_t pid = 0;              // 0 when the transport does not know it

  static Credentials OfThisProcess();
};

// A message without a transport: names, a typed body, the sender. Copyable, not synchronised.
//
// Texts are counted bytes of any value, zero included; on D-Bus they are byte arrays ("ay"), as a
// string there may hold neither zero bytes nor bytes that are not UTF-8, and lists are "aay".
//
// Bodies carry passwords and tokens, so their texts are overwritten before their memory is given
// back.
class MsgBusMsg {
 public:
  enum class Type { kCall = 1, kReply = 2, kError = 3, kSignal = 4 };
  using Value = std::variant<bool, int32_t, uint32_t, std::string, std::vector<std::string>>;

  MsgBusMsg(std::string interface, std::string name, std::string destination);
  // The answer to `request`: its serial in ReplySerial, its names, no body.
  static MsgBusMsg ReplyTo(const MsgBusMsg& request);
  // An error answer: a D-Bus error name and a text for people.
  static MsgBusMsg ErrorTo(const MsgBusMsg& request, const std::string& error_name,
                           const std::string& text);

  const std::string& GetInterface() const { return names_->interface; }
  const std::string& GetName() const { return names_->name; }
  const std::string& GetDestination() const { return names_->destination; }
  DBusMessage* GetDBusMessage() { return &header_; }
  const DBusMessage* GetDBusMessage() const { return &header_; }

  Type GetType() const { return static_cast<Type>(header_.header[1]); }
  uint32_t Serial() const;
  void SetSerial(uint32_t serial);
  uint32_t ReplySerial() const { return reply_serial_; }

  bool IsError() const { return GetType() == Type::kError; }
  const std::string& ErrorName() const { return error_name_; }
  const std::string& ErrorText() const { return error_text_; }

  MsgBusMsg& Append(Value value);
  const std::vector<Value>& Body() const { return body_.Get(); }
  // The body's signature in this class's own letters: b, i, u, s (counted text), l (list of texts).
  std::string Signature() const;
  // Bytes of the message on D-Bus; no transport makes more of it.
  size_t Size() const;

  const Credentials& Sender() const;
  void SetSender(const Credentials& sender) { sender_ = sender; }
  // The transport's own handle for routing a reply; opaque to everybody else.
  uint64_t RouteTag() const { return route_tag_; }
  void SetRouteTag(uint64_t tag) { route_tag_ = tag; }
  // Of an answer: which life of the server gave it, a number that no other life has; 0 when the
  // transport does not tell.
  uint64_t Instance() const { return instance_; }
  void SetInstance(uint64_t instance) { instance_ = instance; }

 private:
  struct Names {
    std::string interface;
    std::string name;
    std::string destination;
  };

  class Values final {
   public:
    Values() = default;
    Values(const Values&) = default;
    Values(Values&&) noexcept = default;
    Values& operator=(Values other) noexcept {
      values_.swap(other.values_);
      return *this;
    }
    ~Values();

    const std::vector<Value>& Get() const { return values_; }
    void Add(Value&& value);

   private:
    std::vector<Value> values_;
  };

  MsgBusMsg(std::shared_ptr<const Names> names, Type type);
  void StoreFieldsLength();

  std::shared_ptr<const Names> names_;  // shared by copies and by a request and its answer
  DBusMessage header_;
  size_t fields_length_ = 0;     // of the header fields but the signature
  size_t signature_length_ = 0;  // on the wire
  uint32_t reply_serial_ = 0;
  std::string error_name_;
  std::string error_text_;
  Values body_;
  mutable std::optional<Credentials> sender_;  // empty: this process, asked for on first use
  uint64_t route_tag_ = 0;
  uint64_t instance_ = 0;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_MSG_BUS_MSG_H_
