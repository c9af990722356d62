#include "vigila/server/logon_refusals.h"

#include <gtest/gtest.h>

#include "support/capturing_log.h"

namespace vigila::server {
namespace {

using support::LogLine;
using tevra::core::Logger;

class LogonRefusals : public testing::Test {
 protected:
  std::string Password(int code) { return RefusePasswordLogon(*logger_, code, "al%s"); }
  std::string Wsse(int code) { return RefuseWsseLogon(*logger_, code, "al%s", "DIG", "NON"); }
  LogLine Line() const {
    EXPECT_EQ(1u, log_.Lines().size());
    return log_.Lines().empty() ? LogLine{} : log_.Lines().front();
  }

  Logger* const logger_ = Logger::GetLogger("Refusals");
  support::CapturingLog log_;
};

TEST_F(LogonRefusals, PasswordOfAnUnknownUser) {
  EXPECT_EQ("NO_TOKEN", Password(10));
  EXPECT_EQ((LogLine{Logger::kNotice, "Refusals", "Nonexistent user al%s"}), Line());
}

TEST_F(LogonRefusals, PasswordOfALockedAccount) {
  EXPECT_EQ("DISABLED", Password(16));
  EXPECT_EQ((LogLine{Logger::kNotice, "Refusals",
                     "User account 'al%s' is disabled; too many invalid passwords."}),
            Line());
}

TEST_F(LogonRefusals, ExpiredPassword) {
  EXPECT_EQ("_EXPIRED", Password(17));
  EXPECT_EQ((LogLine{Logger::kNotice, "Refusals", "Password has expired for local user 'al%s'."}),
            Line());
}

TEST_F(LogonRefusals, WrongPassword) {
  EXPECT_EQ("NO_TOKEN", Password(18));
  EXPECT_EQ(
      (LogLine{Logger::kNotice, "Refusals", "Incorrect password specified for local user 'al%s'."}),
      Line());
}

TEST_F(LogonRefusals, UnknownPasswordCodeIsAnError) {
  EXPECT_EQ("NO_TOKEN", Password(3));
  EXPECT_EQ((LogLine{Logger::kError, "Refusals", "Unknown ValidateUser code 3 for user 'al%s'."}),
            Line());
}

TEST_F(LogonRefusals, DigestThatIsNoSha1) {
  EXPECT_EQ("NO_TOKEN", Wsse(1));
  EXPECT_EQ((LogLine{Logger::kInformation, "Refusals", "digest DIG is not SHA1"}), Line());
}

TEST_F(LogonRefusals, NonceThatIsNotBase64) {
  EXPECT_EQ("NO_TOKEN", Wsse(2));
  EXPECT_EQ((LogLine{Logger::kInformation, "Refusals", "nonce NON is not base64"}), Line());
}

TEST_F(LogonRefusals, AccountWithoutDigestLogonHasATokenOfItsOwn) {
  EXPECT_EQ("NODIGEST", Wsse(3));
  EXPECT_EQ((LogLine{Logger::kInformation, "Refusals", "remote user can't use digest mode"}),
            Line());
}

TEST_F(LogonRefusals, DigestOfAnUnknownUser) {
  EXPECT_EQ("NO_TOKEN", Wsse(10));
  EXPECT_EQ((LogLine{Logger::kNotice, "Refusals", "Nonexistent user al%s"}), Line());
}

TEST_F(LogonRefusals, DigestOfALockedAccount) {
  EXPECT_EQ("DISABLED", Wsse(16));
  EXPECT_EQ((LogLine{Logger::kNotice, "Refusals",
                     "User account 'al%s' is disabled; too many invalid passwords."}),
            Line());
}

TEST_F(LogonRefusals, DigestOverAnExpiredPassword) {
  EXPECT_EQ("_EXPIRED", Wsse(17));
  EXPECT_EQ((LogLine{Logger::kNotice, "Refusals", "Password has expired for local user 'al%s'."}),
            Line());
}

TEST_F(LogonRefusals, WrongDigestIsAProtocolFaultWithTwoBlanksInItsText) {
  EXPECT_EQ("NO_TOKEN", Wsse(18));
  EXPECT_EQ((LogLine{Logger::kInformation, "Refusals",
                     "Digest doesn't match SHA1 calculation for user al%s.  Invalid password."}),
            Line());
}

TEST_F(LogonRefusals, UnknownDigestCodeIsAnError) {
  EXPECT_EQ("NO_TOKEN", Wsse(99));
  EXPECT_EQ(
      (LogLine{Logger::kError, "Refusals", "Unknown ValidateWsseDigest code 99 for user 'al%s'."}),
      Line());
}

}  // namespace
}  // namespace vigila::server
