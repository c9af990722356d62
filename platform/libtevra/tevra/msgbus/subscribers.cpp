#include "tevra/msgbus/subscribers.h"

#include <algorithm>

namespace tevra::msgbus {

void Subscribers::Add(RequestDispatcher& bus, const std::string& destination) {
  const auto is_known = [&](const auto& subscriber) {
    return subscriber->bus == &bus && subscriber->destination == destination;
  };
  if (std::any_of(subscribers_.begin(), subscribers_.end(), is_known)) return;
  subscribers_.push_back(std::make_shared<Subscriber>(Subscriber{&bus, destination}));
  if (present_.contains(destination)) bus.DispatchAppearance(destination);
}

void Subscribers::Remove(const RequestDispatcher& bus) {
  std::erase_if(subscribers_, [&bus](const auto& subscriber) {
    if (subscriber->bus != &bus) return false;
    subscriber->bus = nullptr;  // for the round that may be under way
    return true;
  });
}

void Subscribers::Signal(const std::string& destination, const MsgBusMsg& signal) {
  ForEach(destination, [&signal](RequestDispatcher& bus) {
    MsgBusMsg copy = signal;  // handlers may change it
    bus.DispatchSignal(copy);
  });
}

void Subscribers::Appeared(const std::string& destination) {
  present_.insert(destination);
  ForEach(destination, [&](RequestDispatcher& bus) { bus.DispatchAppearance(destination); });
}

void Subscribers::Vanished(const std::string& destination) {
  present_.erase(destination);
  ForEach(destination, [&](RequestDispatcher& bus) { bus.DispatchVanishing(destination); });
}

// What is so now, not what was so when someone saw a reason to tell: told behind an appearance, a
// vanishing would stand until the destination really goes.
void Subscribers::TellOne(const RequestDispatcher* bus, const std::string& destination) {
  const auto news =
      present_.contains(destination) ? WatchStates::News::kAppeared : WatchStates::News::kVanished;
  ForEach(destination, [&](RequestDispatcher& known) {
    if (&known == bus) known.DispatchNews(news, destination);
  });
}

template <typename Tell>
void Subscribers::ForEach(const std::string& destination, Tell tell) {
  const auto round = subscribers_;
  for (const auto& subscriber : round) {
    if (subscriber->bus != nullptr && subscriber->destination == destination) {
      tell(*subscriber->bus);
    }
  }
}

}  // namespace tevra::msgbus
