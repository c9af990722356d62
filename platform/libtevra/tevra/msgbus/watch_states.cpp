#include "tevra/msgbus/watch_states.h"

#include <utility>

namespace tevra::msgbus {

void WatchStates::Watch(const std::string& name) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (watched_.emplace(name, State()).second) ++unsettled_;
}

template <typename Change>
void WatchStates::ChangeState(const std::string& name, Change change) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto state = watched_.find(name);
  if (state == watched_.end()) return;
  const bool was_settled = state->second.IsSettled();
  change(state->second);
  if (was_settled && !state->second.IsSettled()) ++unsettled_;
  if (!was_settled && state->second.IsSettled()) --unsettled_;
}

void WatchStates::SetEstablished(const std::string& name, bool established) {
  ChangeState(name, [established](State& state) { state.established = established; });
}

void WatchStates::NoteFailedCall(const std::string& name) {
  ChangeState(name, [](State& state) { state.failed = true; });
}

WatchStates::News WatchStates::AfterAnswer(const std::string& name) {
  if (unsettled_ == 0) return News::kNone;
  News news = News::kNone;
  ChangeState(name, [&news](State& state) {
    const bool failed = std::exchange(state.failed, false);
    if (!state.established) {
      news = News::kVanished;
    } else if (failed) {
      news = News::kAppeared;
    }
  });
  return news;
}

}  // namespace tevra::msgbus
