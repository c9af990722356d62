#ifndef SUPPORT_CHANGE_RECORDER_H_
#define SUPPORT_CHANGE_RECORDER_H_

#include <memory>
#include <mutex>
#include <vector>

#include "tevra/core/delegate.h"
#include "tevra/interfaces/i_security_provider.h"

namespace support {

// Notes what a provider's change listeners are told; must outlive the provider or be removed from
// it. Any thread.
class ChangeRecorder {
 public:
  void Attach(tevra::interfaces::ISecurityProvider& provider) {
    using Delegate =
        tevra::core::VoidObjectMethodDelegate1<ChangeRecorder,
                                               void (ChangeRecorder::*)(const bool&), bool>;
    provider.AddChangeListener(std::make_unique<Delegate>(this, &ChangeRecorder::OnChange));
  }
  void OnChange(const bool& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    values_.push_back(value);
  }
  std::vector<bool> Values() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return values_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<bool> values_;
};

}  // namespace support

#endif  // SUPPORT_CHANGE_RECORDER_H_
