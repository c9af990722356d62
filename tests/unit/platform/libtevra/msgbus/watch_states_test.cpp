#include "tevra/msgbus/watch_states.h"

#include <gtest/gtest.h>

namespace tevra::msgbus {
namespace {

using News = WatchStates::News;

class WatchStatesTest : public testing::Test {
 protected:
  WatchStatesTest() { states_.Watch("a"); }
  WatchStates states_;
};

TEST_F(WatchStatesTest, AnAnswerIsNoNewsWhileBroadcastsCome) {
  states_.SetEstablished("a", true);
  EXPECT_EQ(states_.AfterAnswer("a"), News::kNone);
}

TEST_F(WatchStatesTest, EveryAnswerIsAVanishingWhileBroadcastsDoNotCome) {
  EXPECT_EQ(states_.AfterAnswer("a"), News::kVanished);
  states_.SetEstablished("a", true);
  states_.SetEstablished("a", false);
  EXPECT_EQ(states_.AfterAnswer("a"), News::kVanished);
  EXPECT_EQ(states_.AfterAnswer("a"), News::kVanished);
}

TEST_F(WatchStatesTest, TheFirstAnswerAfterAFailureIsAnAppearance) {
  states_.SetEstablished("a", true);
  states_.NoteFailedCall("a");
  states_.NoteFailedCall("a");
  EXPECT_EQ(states_.AfterAnswer("a"), News::kAppeared);
  EXPECT_EQ(states_.AfterAnswer("a"), News::kNone);
}

TEST_F(WatchStatesTest, AnAppearanceDoesNotMakeUpForAFailure) {
  states_.NoteFailedCall("a");
  states_.SetEstablished("a", true);
  EXPECT_EQ(states_.AfterAnswer("a"), News::kAppeared);
}

TEST_F(WatchStatesTest, WhatIsNotWatchedIsNoNews) {
  states_.NoteFailedCall("b");
  EXPECT_EQ(states_.AfterAnswer("b"), News::kNone);
  states_.Watch("b");
  states_.Watch("b");
  states_.SetEstablished("b", true);
  EXPECT_EQ(states_.AfterAnswer("b"), News::kNone);
  EXPECT_EQ(states_.AfterAnswer("a"), News::kVanished);
}

}  // namespace
}  // namespace tevra::msgbus
