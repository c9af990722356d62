#include "vigilad/known_keys.h"

#include <algorithm>

#include "tevra/core/config_key.h"
#include "tevra/core/nearest_word.h"
#include "vigila/contract/rules.h"

namespace vigila::daemon {
namespace {

// Where older releases kept the rules, each under its path without the leading "/".
constexpr char kOlderRules[] = "Applications/vigila/Rules/Dynamic";

std::vector<std::string> SectionsOf(const std::vector<KnownKey>& known) {
  std::vector<std::string> sections;
  for (const KnownKey& key : known) sections.push_back(key.section);
  return sections;
}

std::vector<std::string> KeysIn(const std::string& section, const std::vector<KnownKey>& known) {
  std::vector<std::string> names;
  for (const KnownKey& key : known) {
    if (key.section == section) names.push_back(key.name);
  }
  return names;
}

bool Contains(const std::vector<std::string>& words, const std::string& word) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

std::string UnknownKey(const std::string& section, const std::string& name,
                       const std::vector<KnownKey>& known) {
  const std::string sentence = "[" + section + "] " + name + ": there is no such key";
  const auto elsewhere = std::find_if(known.begin(), known.end(),
                                      [&](const KnownKey& key) { return key.name == name; });
  if (elsewhere != known.end())
    return sentence + " here; it belongs in [" + elsewhere->section + "]";
  return sentence + tevra::core::DidYouMean(name, KeysIn(section, known));
}

}  // namespace

std::vector<KnownKey> KnownKeys() {
  std::vector<KnownKey> known;
  for (const tevra::core::ConfigKey* key : tevra::core::ConfigKey::All()) {
    known.push_back({key->section(), key->name(), key->fallback()});
  }
  for (const contract::Rule& rule : contract::kRules) {
    if (rule.setting != nullptr) known.push_back({kOlderRules, rule.path + 1, ""});
  }
  return known;
}

std::vector<std::string> UnknownIn(const tevra::core::IniFile& file) {
  const std::vector<KnownKey> known = KnownKeys();
  const std::vector<std::string> sections = SectionsOf(known);
  std::vector<std::string> sentences;
  for (const auto& [section, keys] : file.Sections()) {
    if (!Contains(sections, section)) {
      sentences.push_back("[" + section + "]: there is no such section" +
                          tevra::core::DidYouMean(section, sections));
      continue;
    }
    const std::vector<std::string> names = KeysIn(section, known);
    for (const auto& [name, value] : keys) {
      if (!Contains(names, name)) sentences.push_back(UnknownKey(section, name, known));
    }
  }
  return sentences;
}

}  // namespace vigila::daemon
