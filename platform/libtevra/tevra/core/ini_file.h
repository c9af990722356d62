#ifndef TEVRA_CORE_INI_FILE_H_
#define TEVRA_CORE_INI_FILE_H_

#include <map>
#include <optional>
#include <string>

namespace tevra::core {

// Sections of "key = value" lines. "#" and ";" begin a comment line; blanks around keys and values
// are dropped; the last of two equal keys wins. Not synchronised.
class IniFile {
 public:
  IniFile() = default;

  // Reads a whole file; throws tevra::osa::Exception that names the file (and the line, when one is
  // malformed) and keeps nothing of it.
  static IniFile Load(const std::string& path);
  static IniFile Parse(const std::string& text, const std::string& name_for_errors);

  std::optional<std::string> Get(const std::string& section, const std::string& key) const;
  void Set(const std::string& section, const std::string& key, const std::string& value);
  const std::map<std::string, std::map<std::string, std::string>>& Sections() const {
    return sections_;
  }

 private:
  std::map<std::string, std::map<std::string, std::string>> sections_;
};

}  // namespace tevra::core

#endif  // TEVRA_CORE_INI_FILE_H_
