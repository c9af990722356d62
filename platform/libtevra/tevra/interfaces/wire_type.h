#ifndef TEVRA_INTERFACES_WIRE_TYPE_H_
#define TEVRA_INTERFACES_WIRE_TYPE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

#include "tevra/msgbus/caller_roles.h"
#include "tevra/msgbus/msg_bus_msg.h"

namespace tevra::interfaces {

// A request that is being carried out, and the roles by which its sender is judged.
struct Call {
  const msgbus::MsgBusMsg& request;
  const msgbus::CallerRoles& roles;
};

// How a parameter's type travels: its letter in a message's signature, and its value out of a
// request whose signature has been checked.
template <typename T>
struct WireType;

template <typename T, char letter>
struct PlainWireType {
  static constexpr char kLetter = letter;
  static const T& Get(const Call& call, size_t index) {
    return std::get<T>(call.request.Body()[index]);
  }
};
template <>
struct WireType<bool> : PlainWireType<bool, 'b'> {};
template <>
struct WireType<int32_t> : PlainWireType<int32_t, 'i'> {};
template <>
struct WireType<uint32_t> : PlainWireType<uint32_t, 'u'> {};
template <>
struct WireType<std::string> : PlainWireType<std::string, 's'> {};
template <>
struct WireType<std::vector<std::string>> : PlainWireType<std::vector<std::string>, 'l'> {};

// The signature of a message with values of these types.
template <typename... T>
inline constexpr char kSignatureOf[] = {WireType<std::decay_t<T>>::kLetter..., '\0'};

}  // namespace tevra::interfaces

#endif  // TEVRA_INTERFACES_WIRE_TYPE_H_
