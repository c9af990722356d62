#include "tevra/core/delegate.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using tevra::core::IVoidDelegate1;
using tevra::core::VoidObjectMethodDelegate1;

struct Listener {
  void Changed(bool value) { seen.push_back(value); }
  std::vector<bool> seen;
};

using Delegate = VoidObjectMethodDelegate1<Listener, void (Listener::*)(bool), bool>;

TEST(Delegate, CallsTheMethodOfItsObject) {
  Listener listener;
  const std::unique_ptr<IVoidDelegate1<bool>> delegate =
      std::make_unique<Delegate>(&listener, &Listener::Changed);
  delegate->Call(true);
  delegate->Call(false);
  EXPECT_EQ(listener.seen, (std::vector<bool>{true, false}));
}

TEST(Delegate, MatchesItsOwnObjectOnly) {
  Listener first, second;
  const Delegate delegate(&first, &Listener::Changed);
  EXPECT_TRUE(delegate.Matches(&first));
  EXPECT_FALSE(delegate.Matches(&second));
  EXPECT_FALSE(delegate.Matches(nullptr));
}

}  // namespace
