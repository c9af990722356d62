#include <gtest/gtest.h>

#include "decryptions.h"
#include "support/library_without_rsa.h"
#include "support/user_store_fixture.h"

namespace vigila::server {
namespace {

constexpr char kTooSoon[] = "Authentication Failed: Too soon to retry after bad password.";
constexpr char kDisabledAlice[] =
    "Authentication Failed: User account 'alice' has been disabled.  Too many invalid passwords.";
constexpr char kIncorrectAlice[] =
    "Authentication Failed: Incorrect password specified for local user 'alice'.";
constexpr char kLoggedOnAlice[] = "Local user 'alice' has successfully logged on.";

class UserMapValidation : public support::UserStoreTest {
 protected:
  UserMapValidation() {
    Put("admin", "adminpass", kAdmin);
    Put("alice", "secret", kViewer);
  }
  // A wrong password now, then the delay after it.
  int FailAndWait(const std::string& name) {
    const int code = Logon(name, "wrong");
    now_ += 4;
    SetTime(now_);
    return code;
  }

  // Private-key operations that one refused logon costs.
  int DecryptionsOf(const std::string& name) {
    const int before = DecryptionCount();
    EXPECT_NE(0, Logon(name, "wrong")) << name;
    return DecryptionCount() - before;
  }

  uint32_t now_ = kStart;
};

using WithoutPolicy = UserMapValidation;

class WithPolicy : public UserMapValidation {
 protected:
  WithPolicy() { RestartWithPolicy(); }
};

TEST_F(WithoutPolicy, LetsTheRightPasswordInWithItsGroup) {
  Group group = ToGroup(77);
  EXPECT_EQ(0, Store().ValidateUser("alice", "secret", group));
  EXPECT_EQ(8u, group);
  EXPECT_EQ(Texts{kLoggedOnAlice}, Notices());
}

TEST_F(WithoutPolicy, RefusesTheWrongPasswordAndClearsTheGroup) {
  Group group = ToGroup(77);
  EXPECT_EQ(18, Store().ValidateUser("alice", "Secret", group));
  EXPECT_EQ(0u, group);
  EXPECT_EQ(Texts{kIncorrectAlice}, Notices());
}

TEST_F(WithoutPolicy, RefusesAnUnknownUser) {
  EXPECT_EQ(10, Logon("nosuch", "secret"));
  EXPECT_EQ(Texts{"Authentication Failed: Nonexistent local user nosuch"}, Notices());
}

TEST_F(WithoutPolicy, RefusesNobodyWithoutAWord) {
  EXPECT_EQ(10, Logon("nobody", ""));
  EXPECT_EQ(10, Logon("nobody", "secret"));
  EXPECT_EQ(Texts(), Notices());
}

TEST_F(WithoutPolicy, NeverTakesUserTextForAFormat) {
  EXPECT_EQ(10, Logon("%s%n", "secret"));
  EXPECT_EQ(Texts{"Authentication Failed: Nonexistent local user %s%n"}, Notices());
}

TEST_F(WithoutPolicy, ComparesEveryByteOfThePassword) {
  const std::string zero("sec\0ret", 7);
  Put("zero", zero, kViewer);
  EXPECT_EQ(0, Logon("zero", zero));
  EXPECT_EQ(18, Logon("zero", "sec"));
  EXPECT_EQ(18, Logon("zero", std::string("sec\0reT", 7)));
  EXPECT_EQ(18, Logon("alice", "secre"));
  EXPECT_EQ(18, Logon("alice", "secrets"));
  EXPECT_EQ(18, Logon("alice", std::string("secret\0", 7)));
  EXPECT_EQ(18, Logon("alice", "secretsecret"));
}

TEST_F(WithoutPolicy, MatchesNothingForAnAccountWithoutAUsablePassword) {
  settings_.PutJson("user.none", "{\"Groups\":8}");
  settings_.PutJson("user.blank", "{\"Groups\":8,\"Password\":\"\"}");
  settings_.PutJson("user.damaged", "{\"Groups\":8,\"Password\":\"c2VjcmV0\"}");
  MyUser empty;
  empty.group = ToGroup(kViewer);
  empty.password = Encrypt("");
  Put("empty", empty);
  for (const char* name : {"none", "blank", "damaged", "empty"}) {
    for (const char* password : {"", "c2VjcmV0", "secret", "(nothing)"}) {
      EXPECT_EQ(18, Logon(name, password)) << name << " " << password;
    }
  }
}

TEST_F(WithoutPolicy, DecryptsOnceForAnUnknownUserAsForAWrongPassword) {
  settings_.PutJson("user.none", "{\"Groups\":8}");
  Logon("alice", "wrong");
  // The decryption is all the work there is; without it a name could be told by the time taken.
  EXPECT_EQ(1, DecryptionsOf("alice"));
  EXPECT_EQ(1, DecryptionsOf("nosuch"));
  EXPECT_EQ(1, DecryptionsOf("none"));
}

// So that a refusal takes as long for one that exists as for one that does not.
TEST_F(WithoutPolicy, TriesTheKeyForAnyNameWhileTheLibraryDoesNotTakeIt) {
  settings_.PutJson("user.none", "{\"Groups\":8}");
  Store().Size();
  const support::LibraryWithoutRsa library;
  for (const char* name : {"nosuch", "nosuch", "alice", "alice", "none", "none"}) {
    log_.Clear();
    EXPECT_NE(0, Logon(name, "secret"));
    const Texts errors = log_.TextsOf("AtRestCipher", support::CapturingLog::Level::kError);
    ASSERT_EQ(1u, errors.size()) << name;
    EXPECT_TRUE(
        errors[0].starts_with("key file " + Cipher().KeyFile() + ": the key cannot be built: "));
  }
}

TEST_F(WithoutPolicy, CountsNoWrongPassword) {
  Store().Size();
  const unsigned long writes = krand_core_settings_write_count();
  for (int i = 0; i < 10; ++i) EXPECT_EQ(18, Logon("alice", "wrong"));
  EXPECT_EQ(0, Logon("alice", "secret"));
  EXPECT_EQ(writes, krand_core_settings_write_count());
}

TEST_F(WithoutPolicy, IgnoresLockAndExpiry) {
  MyUser user = Account("secret", kViewer, 1);
  user.disabled_time = kStart;
  user.failed_attempts = 3;
  user.bad_password_time = kStart;
  Put("alice", user);
  EXPECT_EQ(0, Logon("alice", "secret"));
  EXPECT_FALSE(Store().IsAccountDisabled("alice"));
  EXPECT_FALSE(Store().IsAccountExpired("alice"));
  std::string when = "old";
  EXPECT_EQ(2147483647, Store().AccountExpires("alice", when));
  EXPECT_EQ("", when);
  EXPECT_EQ(user.ToJson(), StoredText("alice"));
}

TEST_F(WithoutPolicy, ChecksOnlyTheLengthOfAProposal) {
  settings_.PutArray("oldPasswords.alice", {Encrypt("old one")});
  EXPECT_EQ(0, Store().ValidatePassword("alice", "", "old one"));
  EXPECT_EQ(0, Store().ValidatePassword("alice", "secret", "secret"));
  EXPECT_EQ(0, Store().ValidatePassword("nosuch", "", "four"));
}

TEST_F(WithoutPolicy, RefusesNobodysPasswordFirst) {
  EXPECT_EQ(8, Store().ValidatePassword("nobody", "", "new password"));
  EXPECT_EQ(8, Store().ValidatePassword("nobody", "wrong", "x"));
}

TEST_F(WithoutPolicy, HoldsAProposalBetweenFourAndSixtyFourBytes) {
  for (const char* name : {"alice", "", "nosuch"}) {
    EXPECT_EQ(5, Store().ValidatePassword(name, "", "")) << name;
    EXPECT_EQ(5, Store().ValidatePassword(name, "", "abc")) << name;
    EXPECT_EQ(0, Store().ValidatePassword(name, "", "abcd")) << name;
    EXPECT_EQ(0, Store().ValidatePassword(name, "", std::string(64, 'x'))) << name;
    EXPECT_EQ(6, Store().ValidatePassword(name, "", std::string(65, 'x'))) << name;
  }
  EXPECT_EQ(0, Store().ValidatePassword("alice", "", std::string("a\0b\0", 4)));
}

TEST_F(WithoutPolicy, ChecksThePresentPasswordBeforeTheLength) {
  EXPECT_EQ(18, Store().ValidatePassword("alice", "wrong", "x"));
  EXPECT_EQ(5, Store().ValidatePassword("alice", "secret", "x"));
  EXPECT_EQ(10, Store().ValidatePassword("nosuch", "wrong", "x"));
  EXPECT_EQ(10, Store().ValidatePassword("", "wrong", "x"));
}

TEST_F(WithoutPolicy, LogsThePresentPasswordAsALogon) {
  EXPECT_EQ(0, Store().ValidatePassword("alice", "secret", "new password"));
  EXPECT_EQ(Texts{kLoggedOnAlice}, Notices());
}

TEST_F(WithPolicy, LocksAViewerAtTheThirdWrongPassword) {
  EXPECT_EQ(18, FailAndWait("alice"));
  EXPECT_EQ(18, FailAndWait("alice"));
  EXPECT_FALSE(Store().IsAccountDisabled("alice"));
  EXPECT_EQ(16, FailAndWait("alice"));
  EXPECT_TRUE(Store().IsAccountDisabled("alice"));
  EXPECT_EQ(16, Logon("alice", "secret"));
  EXPECT_EQ((Texts{kIncorrectAlice, kIncorrectAlice, kDisabledAlice, kDisabledAlice}), Notices());
  SetTime(kStart + 100 * kDay);
  EXPECT_EQ(16, Logon("alice", "secret"));  // until an administrator helps
  EXPECT_EQ(kStart + 8, Stored("alice").disabled_time);
  EXPECT_EQ(3u, Stored("alice").failed_attempts);
  EXPECT_EQ(kStart, Stored("alice").bad_password_time);  // of the first failure
}

TEST_F(WithPolicy, LetsALockedAdministratorInAgainAfterFifteenMinutes) {
  for (int i = 0; i < 3; ++i) FailAndWait("admin");
  const uint32_t disabled = Stored("admin").disabled_time;
  SetTime(disabled + 899);
  EXPECT_EQ(16, Logon("admin", "adminpass"));
  SetTime(disabled + 900);
  EXPECT_EQ(0, Logon("admin", "adminpass"));
  EXPECT_EQ(0u, Stored("admin").disabled_time);
  EXPECT_EQ(0u, Stored("admin").failed_attempts);
  EXPECT_EQ(0u, Stored("admin").bad_password_time);
}

TEST_F(WithPolicy, ReenablesALockedAdministratorByAsking) {
  for (int i = 0; i < 3; ++i) FailAndWait("admin");
  const uint32_t disabled = Stored("admin").disabled_time;
  SetTime(disabled + 899);
  EXPECT_TRUE(Store().IsAccountDisabled("admin"));
  EXPECT_EQ(disabled, Stored("admin").disabled_time);
  SetTime(disabled + 900);
  EXPECT_FALSE(Store().IsAccountDisabled("admin"));
  EXPECT_EQ(0u, Stored("admin").disabled_time);
  EXPECT_EQ(0u, Stored("admin").failed_attempts);
  EXPECT_EQ(0u, Stored("admin").bad_password_time);
}

TEST_F(WithPolicy, MakesEvenTheRightPasswordWaitAfterAWrongOne) {
  EXPECT_EQ(18, Logon("alice", "wrong"));
  SetTime(kStart + 3);
  EXPECT_EQ(18, Logon("alice", "secret"));
  EXPECT_EQ((Texts{kIncorrectAlice, kTooSoon}), Notices());
  EXPECT_EQ(1u, Stored("alice").failed_attempts);  // the refusal did not count
  SetTime(kStart + 4);
  EXPECT_EQ(0, Logon("alice", "secret"));
}

TEST_F(WithPolicy, KeepsTheTimeOfTheLastFailureAfterASuccess) {
  FailAndWait("alice");
  EXPECT_EQ(0, Logon("alice", "secret"));
  EXPECT_EQ(0u, Stored("alice").failed_attempts);
  EXPECT_EQ(kStart, Stored("alice").bad_password_time);
}

TEST_F(WithPolicy, NeverTripsTheDelayWhenTheClockWasSetBack) {
  EXPECT_EQ(18, Logon("alice", "wrong"));
  SetTime(kStart - 1);
  EXPECT_EQ(0, Logon("alice", "secret"));
}

TEST_F(WithPolicy, NeverTripsTheDelayWithoutAFailure) {
  SetTime(2);
  EXPECT_EQ(0, Logon("alice", "secret"));
}

TEST_F(WithPolicy, CountsAFailureAnHourLaterToTheSameSeries) {
  FailAndWait("alice");
  SetTime(kStart + 3600);
  EXPECT_EQ(18, Logon("alice", "wrong"));
  EXPECT_EQ(2u, Stored("alice").failed_attempts);
  EXPECT_EQ(kStart, Stored("alice").bad_password_time);
}

TEST_F(WithPolicy, StartsANewSeriesASecondAfterTheHour) {
  FailAndWait("alice");
  FailAndWait("alice");
  SetTime(kStart + 3601);
  EXPECT_EQ(18, Logon("alice", "wrong"));
  EXPECT_EQ(1u, Stored("alice").failed_attempts);
  EXPECT_EQ(kStart + 3601, Stored("alice").bad_password_time);
}

TEST_F(WithPolicy, CountsOnAfterASuccessWithinTheHour) {
  FailAndWait("alice");
  FailAndWait("alice");
  EXPECT_EQ(0, Logon("alice", "secret"));
  EXPECT_EQ(18, FailAndWait("alice"));
  EXPECT_EQ(1u, Stored("alice").failed_attempts);
  EXPECT_EQ(kStart, Stored("alice").bad_password_time);
}

TEST_F(WithPolicy, LocksAtOnceWhenTheStoreHoldsAHugeCount) {
  Restart();
  MyUser user = Account("secret", kViewer);
  user.failed_attempts = 4294967295u;
  user.bad_password_time = kStart;
  Put("alice", user);
  RestartWithPolicy();
  SetTime(kStart + 10);
  EXPECT_EQ(16, Logon("alice", "wrong"));
  EXPECT_EQ(4294967295u, Stored("alice").failed_attempts);
}

TEST_F(WithPolicy, AnswersExpiredOnlyAfterTheCountersWereReset) {
  Restart();
  MyUser user = Account("secret", kViewer, 1);
  user.failed_attempts = 2;
  user.bad_password_time = kStart - 10;
  Put("alice", user);
  RestartWithPolicy();
  Group group = ToGroup(77);
  EXPECT_EQ(17, Store().ValidateUser("alice", "secret", group));
  EXPECT_EQ(0u, group);
  EXPECT_EQ(0u, Stored("alice").failed_attempts);
  EXPECT_EQ(Texts{"Password has expired for local user 'alice'."}, Notices());
  EXPECT_EQ(18, Logon("alice", "wrong"));
}

TEST_F(WithPolicy, ExpiresAPasswordAfterSixtyDays) {
  SetTime(kStart + 60 * kDay);
  EXPECT_FALSE(Store().IsAccountExpired("alice"));
  EXPECT_EQ(0, Logon("alice", "secret"));
  SetTime(kStart + 60 * kDay + 1);
  EXPECT_TRUE(Store().IsAccountExpired("alice"));
  EXPECT_EQ(17, Logon("alice", "secret"));
}

TEST_F(WithPolicy, NeverExpiresAPasswordWithoutATime) {
  Restart();
  Put("alice", "secret", kViewer, 0);
  RestartWithPolicy();
  SetTime(kStart + 10000 * kDay);
  EXPECT_FALSE(Store().IsAccountExpired("alice"));
  EXPECT_EQ(0, Logon("alice", "secret"));
  std::string when = "old";
  EXPECT_EQ(2147483647, Store().AccountExpires("alice", when));
  EXPECT_EQ("", when);
}

TEST_F(WithPolicy, CannotOverflowATime) {
  Restart();
  Put("alice", "secret", kViewer, 4294967295u);
  RestartWithPolicy();
  EXPECT_FALSE(Store().IsAccountExpired("alice"));
  EXPECT_EQ(15, Store().ValidatePassword("alice", "", "new password"));
}

TEST_F(WithPolicy, AsksNothingOfNobodyAndTheUnknown) {
  EXPECT_FALSE(Store().IsAccountDisabled("nosuch"));
  EXPECT_FALSE(Store().IsAccountExpired("nosuch"));
  EXPECT_FALSE(Store().IsAccountDisabled("nobody"));
  EXPECT_FALSE(Store().IsAccountExpired("nobody"));
  std::string when;
  EXPECT_EQ(2147483647, Store().AccountExpires("nosuch", when));
  EXPECT_EQ(2147483647, Store().AccountExpires("nobody", when));
}

TEST_F(WithPolicy, CountsTheDaysToExpiry) {
  std::string when;
  EXPECT_EQ(-60, Store().AccountExpires("alice", when));
  EXPECT_EQ(tevra::osa::DateTime(tevra::osa::TimeStruct(kStart + 60 * kDay, 0)).ToString(0), when);
  struct {
    uint32_t after;
    int days;
  } const steps[] = {{1, -59},           {kDay, -59},    {kDay + 1, -58},    {59 * kDay, -1},
                     {59 * kDay + 1, 0}, {60 * kDay, 0}, {61 * kDay - 1, 0}, {61 * kDay, 1}};
  for (const auto& step : steps) {
    SetTime(kStart + step.after);
    EXPECT_EQ(step.days, Store().AccountExpires("alice", when)) << step.after;
  }
}

TEST_F(WithPolicy, WritesTheInstantOfExpiry) {
  Restart();
  Put("alice", "secret", kViewer, 1700000000);
  RestartWithPolicy();
  std::string when;
  Store().AccountExpires("alice", when);
  EXPECT_EQ("2024-01-13T22:13:20Z", when);
}

TEST_F(WithPolicy, RefusesARememberedPassword) {
  settings_.PutArray("oldPasswords.alice", {Encrypt("old one")});
  EXPECT_EQ(14, Store().ValidatePassword("alice", "", "old one"));
  EXPECT_EQ(0, Store().ValidatePassword("", "", "old one"));
  EXPECT_EQ(0, Store().ValidatePassword("nosuch", "", "old one"));
}

TEST_F(WithPolicy, RefusesAChangeWithinADay) {
  SetTime(kStart + kDay - 1);
  EXPECT_EQ(15, Store().ValidatePassword("alice", "", "new password"));
  SetTime(kStart + kDay);
  EXPECT_EQ(0, Store().ValidatePassword("alice", "", "new password"));
}

TEST_F(WithPolicy, DoesNotCountThePresentPasswordToTheHistory) {
  SetTime(kStart + 2 * kDay);
  EXPECT_EQ(0, Store().ValidatePassword("alice", "", "secret"));
}

TEST_F(WithPolicy, LetsTheExpiredProposeThePresentPasswordAndStayExpired) {
  Restart();
  Put("alice", "secret", kViewer, 1);
  RestartWithPolicy();
  EXPECT_EQ(0, Store().ValidatePassword("alice", "secret", "secret"));
  EXPECT_EQ(0, Merge({{"alice", "secret", kViewer}}));
  EXPECT_TRUE(Store().IsAccountExpired("alice"));
  EXPECT_EQ(-1, Merge({{"alice", "another", kViewer}}));
  EXPECT_FALSE(Store().IsAccountExpired("alice"));
}

TEST_F(WithPolicy, LetsTheLockedProposeANewPasswordAtAnyAge) {
  for (int i = 0; i < 3; ++i) FailAndWait("alice");
  EXPECT_EQ(0, Store().ValidatePassword("alice", "", "new password"));
}

TEST_F(WithPolicy, CountsAWrongPresentPasswordWhateverIsProposed) {
  EXPECT_EQ(18, Store().ValidatePassword("alice", "wrong", "x"));
  EXPECT_EQ(18, Store().ValidatePassword("alice", "wrong", "x"));  // and no delay
  EXPECT_EQ(16, Store().ValidatePassword("alice", "wrong", "x"));
  EXPECT_EQ((Texts{kIncorrectAlice, kIncorrectAlice, kDisabledAlice}), Notices());
}

TEST_F(WithPolicy, CountsOnWhileTheAccountIsLocked) {
  for (int i = 0; i < 3; ++i) FailAndWait("alice");
  EXPECT_EQ(16, Logon("alice", "wrong"));  // not looked at, not counted
  EXPECT_EQ(3u, Stored("alice").failed_attempts);
  EXPECT_EQ(16, Store().ValidatePassword("alice", "wrong", "new password"));
  EXPECT_EQ(4u, Stored("alice").failed_attempts);
  EXPECT_EQ(now_, Stored("alice").disabled_time);
}

TEST_F(WithPolicy, ChecksTheBarePasswordOfTheLockedAndUnlocksThem) {
  for (int i = 0; i < 3; ++i) FailAndWait("alice");
  EXPECT_EQ(15, Store().ValidatePassword("alice", "secret", "new password"));
  EXPECT_FALSE(Store().IsAccountDisabled("alice"));
  EXPECT_EQ(0u, Stored("alice").disabled_time);
}

TEST_F(WithPolicy, AnswersALogonThoughTheCountersCannotBeWritten) {
  Store().Size();
  krand_core_settings_fail_after(1);
  EXPECT_EQ(18, Logon("alice", "wrong"));
  EXPECT_EQ(Texts{"cannot write setting user.alice (KRAND_CORE_IO_ERROR)"}, Errors());
  SetTime(kStart + 4);
  krand_core_settings_fail_after(1);
  EXPECT_EQ(0, Logon("alice", "secret"));
  EXPECT_EQ(2u, Errors().size());
}

TEST_F(WithPolicy, CountsInMemoryWhatCannotBeWritten) {
  Store().Size();
  for (const int code : {18, 18, 16}) {
    krand_core_settings_fail_after(1);
    EXPECT_EQ(code, Logon("alice", "wrong"));
    now_ += 4;
    SetTime(now_);
  }
}

TEST_F(WithPolicy, TakesAPasswordThatCannotBeDecryptedForAWrongOne) {
  Store().Size();
  const FailingDecryptions failing;
  for (const int code : {18, 18, 16}) {
    EXPECT_EQ(code, Logon("alice", "secret"));
    now_ += 4;
    SetTime(now_);
  }
  EXPECT_EQ((Texts{kIncorrectAlice, kIncorrectAlice, kDisabledAlice}), Notices());
  EXPECT_EQ(3u, Stored("alice").failed_attempts);
  EXPECT_EQ(now_ - 4, Stored("alice").disabled_time);
}

TEST_F(WithPolicy, TakesADamagedPasswordForAWrongOne) {
  settings_.PutJson("user.alice",
                    "{\"Groups\":8,\"Password\":\"c2VjcmV0\",\"PasswordTimeEpoch\":1800000000}");
  RestartWithPolicy();
  EXPECT_EQ(18, FailAndWait("alice"));
  EXPECT_EQ(Texts{kIncorrectAlice}, Notices());
  EXPECT_EQ(1u, Stored("alice").failed_attempts);
}

TEST_F(WithPolicy, CountsTheCheckOfAPresentPasswordThatCannotBeDecrypted) {
  Store().Size();
  const FailingDecryptions failing;
  EXPECT_EQ(18, Store().ValidatePassword("alice", "secret", "another"));
  EXPECT_EQ(1u, Stored("alice").failed_attempts);
}

TEST_F(WithPolicy, WritesOnceForEachCountedLogon) {
  Store().Size();
  const unsigned long writes = krand_core_settings_write_count();
  FailAndWait("alice");
  EXPECT_EQ(writes + 1, krand_core_settings_write_count());
  Logon("alice", "secret");
  EXPECT_EQ(writes + 2, krand_core_settings_write_count());
}

TEST_F(WithPolicy, KeepsCountersOverARestart) {
  FailAndWait("alice");
  FailAndWait("alice");
  RestartWithPolicy();
  EXPECT_EQ(16, Logon("alice", "wrong"));
}

}  // namespace
}  // namespace vigila::server
