#ifndef TEVRA_CORE_CONFIG_KEY_H_
#define TEVRA_CORE_CONFIG_KEY_H_

#include <vector>

namespace tevra::core {

// One key of the platform configuration and what stands in its place when the file is silent. The
// configuration is read by these objects only, so All() tells every key that the process can read.
// They are constants with static storage in the source that reads the key; the texts are literals.
// Two sources that read the same key each have one, with the same default.
class ConfigKey final {
 public:
  ConfigKey(const char* section, const char* name, const char* fallback);
  ConfigKey(const ConfigKey&) = delete;
  ConfigKey& operator=(const ConfigKey&) = delete;

  const char* section() const { return section_; }
  const char* name() const { return name_; }
  const char* fallback() const { return fallback_; }

  // Of every library that is loaded, in no order.
  static std::vector<const ConfigKey*> All();

 private:
  const char* const section_;
  const char* const name_;
  const char* const fallback_;
  const ConfigKey* const next_;
};

}  // namespace tevra::core

#endif  // TEVRA_CORE_CONFIG_KEY_H_
