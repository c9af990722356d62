#include "tevra/msgbus/served_interface.h"

#include <cstddef>

#include "tevra/core/string_util.h"

namespace tevra::msgbus {
namespace {

constexpr std::string_view kArrow = "->";

std::vector<ServedValue> Named(std::string_view types, std::string_view names) {
  std::vector<ServedValue> values;
  for (const std::string& name : core::StringUtil::Split(names, ' ')) {
    if (!name.empty()) values.push_back({types.at(values.size()), name});
  }
  return values;
}

}  // namespace

ServedOperation ServedOperation::Of(const char* member, const char* role,
                                    std::string_view argument_types, std::string_view result_types,
                                    std::string_view names) {
  const size_t arrow = names.find(kArrow);
  const std::string_view results =
      arrow == std::string_view::npos ? "" : names.substr(arrow + kArrow.size());
  return {member, role, Named(argument_types, names.substr(0, arrow)),
          Named(result_types, results)};
}

std::string DbusTypesOf(std::string_view letters) {
  std::string types;
  for (const char letter : letters) {
    if (letter == 'l') types += "aay";
    if (letter == 's') types += "ay";
    if (letter != 'l' && letter != 's') types += letter;
  }
  return types;
}

std::string DbusTypesOf(const std::vector<ServedValue>& values) {
  std::string letters;
  for (const ServedValue& value : values) letters += value.type;
  return DbusTypesOf(letters);
}

}  // namespace tevra::msgbus
