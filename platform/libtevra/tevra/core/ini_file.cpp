#include "tevra/core/ini_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "tevra/core/trimmed.h"
#include "tevra/osa/exception.h"

namespace tevra::core {
namespace {

constexpr size_t kMaxFileSize = 1024 * 1024;
constexpr std::string_view kBlanks = " \t\r";

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};

std::string ReadWhole(const std::string& path) {
  const std::unique_ptr<FILE, FileCloser> file(fopen(path.c_str(), "re"));
  if (!file) throw osa::Exception("%s: %s", path.c_str(), strerror(errno));
  std::string text;
  char block[4096];
  size_t got = 0;
  while ((got = fread(block, 1, sizeof(block), file.get())) > 0) {
    text.append(block, got);
    if (text.size() > kMaxFileSize) throw osa::Exception("%s: too large", path.c_str());
  }
  if (ferror(file.get()) != 0) throw osa::Exception("%s: %s", path.c_str(), strerror(errno));
  return text;
}

}  // namespace

IniFile IniFile::Load(const std::string& path) {
  return Parse(ReadWhole(path), path);
}

IniFile IniFile::Parse(const std::string& text, const std::string& name_for_errors) {
  IniFile file;
  std::string section;
  size_t number = 0;
  const auto malformed = [&](const char* what) {
    return osa::Exception("%s:%zu: %s", name_for_errors.c_str(), number, what);
  };
  for (std::string_view rest = text; !rest.empty();) {
    ++number;
    const size_t end = rest.find('\n');
    const std::string_view line = Trimmed(rest.substr(0, end), kBlanks);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    if (line.find('\0') != std::string_view::npos) throw malformed("a zero byte");
    if (line.empty() || line.front() == '#' || line.front() == ';') continue;

    if (line.front() == '[') {
      if (line.back() != ']') throw malformed("a section without \"]\"");
      section = Trimmed(line.substr(1, line.size() - 2), kBlanks);
      if (section.empty()) throw malformed("a section without a name");
      file.sections_[section];
      continue;
    }
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) throw malformed("neither section, key nor comment");
    const std::string_view key = Trimmed(line.substr(0, equals), kBlanks);
    if (key.empty()) throw malformed("a value without a key");
    if (section.empty()) throw malformed("a key before the first section");
    file.Set(section, std::string(key), std::string(Trimmed(line.substr(equals + 1), kBlanks)));
  }
  return file;
}

std::optional<std::string> IniFile::Get(const std::string& section, const std::string& key) const {
  const auto keys = sections_.find(section);
  if (keys == sections_.end()) return std::nullopt;
  const auto value = keys->second.find(key);
  if (value == keys->second.end()) return std::nullopt;
  return value->second;
}

void IniFile::Set(const std::string& section, const std::string& key, const std::string& value) {
  sections_[section][key] = value;
}

}  // namespace tevra::core
