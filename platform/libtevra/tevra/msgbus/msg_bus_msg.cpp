#include "tevra/msgbus/msg_bus_msg.h"

#include <grp.h>
#include <unistd.h>

#include <cstddef>
#include <utility>

namespace tevra::msgbus {
namespace {

constexpr size_t kTypeOffset = 1;
constexpr size_t kBodyLengthOffset = 4;
constexpr size_t kSerialOffset = 8;
constexpr size_t kFieldsLengthOffset = 12;

void StoreBigEndian(uint8_t* bytes, uint32_t value) {
  bytes[0] = static_cast<uint8_t>(value >> 24);
  bytes[1] = static_cast<uint8_t>(value >> 16);
  bytes[2] = static_cast<uint8_t>(value >> 8);
  bytes[3] = static_cast<uint8_t>(value);
}

uint32_t LoadBigEndian(const uint8_t* bytes) {
  return (static_cast<uint32_t>(bytes[0]) << 24) | (static_cast<uint32_t>(bytes[1]) << 16) |
         (static_cast<uint32_t>(bytes[2]) << 8) | static_cast<uint32_t>(bytes[3]);
}

size_t AlignTo(size_t offset, size_t alignment) {
  return (offset + alignment - 1) / alignment * alignment;
}

// Where the body ends once `value` is marshalled behind `offset`. Everything here is aligned to
// four bytes: booleans and numbers are four bytes, arrays begin with a four-byte length.
size_t EndOf(const MsgBusMsg::Value& value, size_t offset) {
  offset = AlignTo(offset, 4) + 4;
  if (const auto* text = std::get_if<std::string>(&value)) return offset + text->size();
  if (const auto* list = std::get_if<std::vector<std::string>>(&value)) {
    for (const std::string& entry : *list) offset = AlignTo(offset, 4) + 4 + entry.size();
  }
  return offset;
}

// A header field is a code, a one-letter signature and the value; fields begin at multiples of 8.
size_t EndOfTextField(size_t offset, size_t length) {
  return AlignTo(offset, 8) + 8 + length + 1;
}
size_t EndOfNumberField(size_t offset) {
  return AlignTo(offset, 8) + 8;
}
size_t EndOfSignatureField(size_t offset, size_t length) {
  return AlignTo(offset, 8) + 4 + 1 + length + 1;
}

size_t WireSignatureLength(const std::vector<MsgBusMsg::Value>& body) {
  size_t length = 0;
  for (const MsgBusMsg::Value& value : body) {
    if (std::holds_alternative<std::string>(value)) {
      length += 2;
    } else if (std::holds_alternative<std::vector<std::string>>(value)) {
      length += 3;
    } else {
      length += 1;
    }
  }
  return length;
}

}  // namespace

Credentials Credentials::OfThisProcess() {
  Credentials own{geteuid(), {getegid()}};
  const int count = getgroups(0, nullptr);
  if (count <= 0) return own;
  std::vector<gid_t> groups(static_cast<size_t>(count));
  const int got = getgroups(count, groups.data());
  if (got <= 0) return own;
  groups.resize(static_cast<size_t>(got));
  own.groups.insert(own.groups.end(), groups.begin(), groups.end());
  return own;
}

MsgBusMsg::MsgBusMsg(const std::string& interface, const std::string& name,
                     const std::string& destination)
    : interface_(interface), name_(name), destination_(destination), header_{} {
  header_.header[0] = 'B';
  header_.header[kTypeOffset] =
      static_cast<uint8_t>(destination.empty() ? Type::kSignal : Type::kCall);
  header_.header[3] = 1;
  UpdateFieldsLength();
}

MsgBusMsg MsgBusMsg::ReplyTo(const MsgBusMsg& request) {
  MsgBusMsg reply(request.interface_, request.name_, request.destination_);
  reply.header_.header[kTypeOffset] = static_cast<uint8_t>(Type::kReply);
  reply.reply_serial_ = request.Serial();
  reply.route_tag_ = request.route_tag_;
  reply.UpdateFieldsLength();
  return reply;
}

MsgBusMsg MsgBusMsg::ErrorTo(const MsgBusMsg& request, const std::string& error_name,
                             const std::string& text) {
  MsgBusMsg reply = ReplyTo(request);
  reply.header_.header[kTypeOffset] = static_cast<uint8_t>(Type::kError);
  reply.error_name_ = error_name;
  reply.error_text_ = text;
  reply.UpdateFieldsLength();
  return reply;
}

uint32_t MsgBusMsg::Serial() const {
  return LoadBigEndian(header_.header + kSerialOffset);
}

void MsgBusMsg::SetSerial(uint32_t serial) {
  StoreBigEndian(header_.header + kSerialOffset, serial);
}

MsgBusMsg& MsgBusMsg::Append(Value value) {
  const size_t end = EndOf(value, LoadBigEndian(header_.header + kBodyLengthOffset));
  StoreBigEndian(header_.header + kBodyLengthOffset, static_cast<uint32_t>(end));
  body_.push_back(std::move(value));
  UpdateFieldsLength();
  return *this;
}

std::string MsgBusMsg::Signature() const {
  static constexpr char kLetters[] = {'b', 'i', 'u', 's', 'l'};
  std::string signature;
  for (const Value& value : body_) signature += kLetters[value.index()];
  return signature;
}

const Credentials& MsgBusMsg::Sender() const {
  if (!sender_) sender_ = Credentials::OfThisProcess();
  return *sender_;
}

void MsgBusMsg::UpdateFieldsLength() {
  const size_t signature = WireSignatureLength(body_);
  size_t fields = 0;
  if (GetType() == Type::kCall || GetType() == Type::kSignal) {
    fields = EndOfTextField(fields, interface_.size() + 1);  // path: "/" and the interface
    fields = EndOfTextField(fields, interface_.size());
    fields = EndOfTextField(fields, name_.size());
    if (!destination_.empty()) fields = EndOfTextField(fields, destination_.size());
  } else {
    fields = EndOfNumberField(fields);
    if (IsError()) fields = EndOfTextField(fields, error_name_.size());
  }
  if (signature > 0) fields = EndOfSignatureField(fields, signature);
  StoreBigEndian(header_.header + kFieldsLengthOffset, static_cast<uint32_t>(fields));
}

}  // namespace tevra::msgbus
