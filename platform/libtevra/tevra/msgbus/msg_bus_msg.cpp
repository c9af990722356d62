#include "tevra/msgbus/msg_bus_msg.h"

#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <utility>

#include "tevra/core/secret_text.h"

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

size_t WireSignatureLength(const MsgBusMsg::Value& value) {
  if (std::holds_alternative<std::string>(value)) return 2;
  if (std::holds_alternative<std::vector<std::string>>(value)) return 3;
  return 1;
}

void WipeTexts(MsgBusMsg::Value& value) {
  if (auto* const text = std::get_if<std::string>(&value)) return core::Wipe(*text);
  if (auto* const list = std::get_if<std::vector<std::string>>(&value)) {
    for (std::string& entry : *list) core::Wipe(entry);
  }
}

}  // namespace

MsgBusMsg::Values::~Values() {
  for (Value& value : values_) WipeTexts(value);
}

// A short text lies in the value itself, so what a move leaves behind is wiped as well.
void MsgBusMsg::Values::Add(Value&& value) {
  if (values_.size() == values_.capacity()) {
    Values wider;
    wider.values_.reserve(std::max<size_t>(2, 2 * values_.size()));
    for (Value& moved : values_) wider.values_.push_back(std::move(moved));
    values_.swap(wider.values_);
  }
  values_.push_back(std::move(value));
  WipeTexts(value);
}

Credentials Credentials::OfThisProcess() {
  Credentials own{geteuid(), {getegid()}, getpid()};
  const int count = getgroups(0, nullptr);
  if (count <= 0) return own;
  std::vector<gid_t> groups(static_cast<size_t>(count));
  const int got = getgroups(count, groups.data());
  if (got <= 0) return own;
  groups.resize(static_cast<size_t>(got));
  own.groups.insert(own.groups.end(), groups.begin(), groups.end());
  return own;
}

MsgBusMsg::MsgBusMsg(std::string interface, std::string name, std::string destination)
    : MsgBusMsg(std::make_shared<const Names>(
                    Names{std::move(interface), std::move(name), std::move(destination)}),
                Type::kCall) {
  if (GetDestination().empty()) {
    header_.header[kTypeOffset] = static_cast<uint8_t>(Type::kSignal);
  }
  size_t fields = EndOfTextField(0, GetInterface().size() + 1);  // path: "/" and the interface
  fields = EndOfTextField(fields, GetInterface().size());
  fields = EndOfTextField(fields, GetName().size());
  if (!GetDestination().empty()) fields = EndOfTextField(fields, GetDestination().size());
  fields_length_ = fields;
  StoreFieldsLength();
}

MsgBusMsg::MsgBusMsg(std::shared_ptr<const Names> names, Type type)
    : names_(std::move(names)), header_{} {
  header_.header[0] = 'B';
  header_.header[kTypeOffset] = static_cast<uint8_t>(type);
  header_.header[3] = 1;
}

MsgBusMsg MsgBusMsg::ReplyTo(const MsgBusMsg& request) {
  MsgBusMsg reply(request.names_, Type::kReply);
  reply.reply_serial_ = request.Serial();
  reply.route_tag_ = request.route_tag_;
  reply.fields_length_ = EndOfNumberField(0);
  reply.StoreFieldsLength();
  return reply;
}

MsgBusMsg MsgBusMsg::ErrorTo(const MsgBusMsg& request, const std::string& error_name,
                             const std::string& text) {
  MsgBusMsg reply = ReplyTo(request);
  reply.header_.header[kTypeOffset] = static_cast<uint8_t>(Type::kError);
  reply.error_name_ = error_name;
  reply.error_text_ = text;
  reply.fields_length_ = EndOfTextField(reply.fields_length_, error_name.size());
  reply.StoreFieldsLength();
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
  signature_length_ += WireSignatureLength(value);
  StoreFieldsLength();
  body_.Add(std::move(value));
  return *this;
}

std::string MsgBusMsg::Signature() const {
  static constexpr char kLetters[] = {'b', 'i', 'u', 's', 'l'};
  std::string signature;
  for (const Value& value : Body()) signature += kLetters[value.index()];
  return signature;
}

size_t MsgBusMsg::Size() const {
  constexpr size_t kFixedHeaderAndPadding = 24;
  return kFixedHeaderAndPadding + LoadBigEndian(header_.header + kBodyLengthOffset) +
         LoadBigEndian(header_.header + kFieldsLengthOffset);
}

const Credentials& MsgBusMsg::Sender() const {
  if (!sender_) sender_ = Credentials::OfThisProcess();
  return *sender_;
}

void MsgBusMsg::StoreFieldsLength() {
  const size_t fields = signature_length_ == 0
                            ? fields_length_
                            : EndOfSignatureField(fields_length_, signature_length_);
  StoreBigEndian(header_.header + kFieldsLengthOffset, static_cast<uint32_t>(fields));
}

}  // namespace tevra::msgbus
