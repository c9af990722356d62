#ifndef KRAND_CORE_SETTINGS_WITNESS_H_
#define KRAND_CORE_SETTINGS_WITNESS_H_

#include <cstdint>
#include <optional>
#include <string>

#include "krand/core/settings_format.h"

namespace krand::core {

// The small file beside a store that remembers how far it has come, so that an older store, which
// may be sound in itself, is not taken for it. It is written after the store, and so says "at
// least": a store may be newer than its witness. Throws SettingsFailure that names the file.
class SettingsWitness final {
 public:
  struct Testimony {
    int64_t change = 0;  // the last change that was settled
    bool marked = false;

    // What a store that has come no further than `manifest` lacks; empty when it lacks nothing.
    std::string Contradiction(const SettingsManifest& manifest) const;
    bool operator==(const Testimony&) const = default;
  };

  // `store` is the store's file.
  explicit SettingsWitness(const std::string& store) : path_(PathFor(store)) {}

  static std::string PathFor(const std::string& store) { return store + ".witness"; }
  const std::string& Path() const { return path_; }

  // Nothing when there is no file; throws when it is damaged.
  std::optional<Testimony> Read() const;
  // Durable when it returns, and never half written.
  void Write(const Testimony& testimony) const;

 private:
  const std::string path_;
};

}  // namespace krand::core

#endif  // KRAND_CORE_SETTINGS_WITNESS_H_
