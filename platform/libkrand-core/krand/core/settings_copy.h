#ifndef KRAND_CORE_SETTINGS_COPY_H_
#define KRAND_CORE_SETTINGS_COPY_H_

#include <ctime>
#include <functional>
#include <string>

namespace krand::core {

// The copy of a sound store that lies beside it for the day on which the store is damaged.
class SettingsCopy final {
 public:
  static constexpr time_t kLifetimeSecs = 3600;

  // `store` is the store's file.
  explicit SettingsCopy(const std::string& store);

  // When there is no copy, or none of the last hour; also when the clock has been set back.
  bool IsDue(time_t now) const;
  // Takes the place of the copy before it, as one. `fill` writes the store into the file whose name
  // it is given. What it wrote is read again from end to end: a copy that is not sound is given up,
  // and SettingsFailure says why.
  void Make(const std::function<void(const std::string& name)>& fill) const;

 private:
  const std::string path_;
};

}  // namespace krand::core

#endif  // KRAND_CORE_SETTINGS_COPY_H_
