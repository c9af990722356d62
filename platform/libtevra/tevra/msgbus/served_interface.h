#ifndef TEVRA_MSGBUS_SERVED_INTERFACE_H_
#define TEVRA_MSGBUS_SERVED_INTERFACE_H_

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tevra/msgbus/msg_bus_msg.h"

namespace tevra::msgbus {

struct ServedValue {
  char type;  // a letter of MsgBusMsg::Signature
  std::string name;
};

// A row of a server's own table: what it serves, and the role that a caller needs for it
// ("service", "admin", or "either").
struct ServedOperation {
  std::string member;
  std::string role;
  std::vector<ServedValue> arguments;
  std::vector<ServedValue> results;

  // The types' letters, and the names for them, separated by blanks: "token path -> granted". There
  // must be as many as letters.
  static ServedOperation Of(const char* member, const char* role, std::string_view argument_types,
                            std::string_view result_types, std::string_view names);
};

struct ServedSignal {
  std::string name;
  std::vector<ServedValue> values;
};

struct ServedCounter {
  std::string name;
  std::function<uint64_t()> read;
};

// What an interface is to callers who have never heard of it, and what checks of the documents
// compare with. The functions are set where the interface is served, and run where its handlers do.
struct ServedInterface {
  std::string name;
  std::vector<ServedOperation> operations = {};
  std::vector<ServedSignal> signals = {};
  std::vector<ServedCounter> counters = {};
  // Why a caller may not read the counters; empty when it may.
  std::function<std::string(const Credentials&)> counter_refusal = {};
};

// A signature as D-Bus spells it, of one in MsgBusMsg's letters: texts are "ay", lists of them
// "aay".
std::string DbusTypesOf(std::string_view letters);
std::string DbusTypesOf(const std::vector<ServedValue>& values);

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_SERVED_INTERFACE_H_
