#ifndef SUPPORT_PROVIDER_ENVIRONMENT_H_
#define SUPPORT_PROVIDER_ENVIRONMENT_H_

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <string>

#include "krand/base64/base64.h"
#include "support/at_rest_key_fixture.h"
#include "support/capturing_log.h"
#include "support/change_recorder.h"
#include "support/platform_fixture.h"
#include "vigila/check/explicit_time_source.h"
#include "vigila/server/security_provider.h"
#include "vigila/server/server_env.h"

namespace support {

// A server on a store, a clock and a bus of the test's own. The clock stands at kStart until it is
// moved.
class ServerUnderTest {
 public:
  static constexpr int64_t kStart = 1800000000;

  ServerUnderTest()
      : env_(std::make_unique<vigila::server::ServerEnv>(true)),
        provider_(env_->GetSecurityProvider()) {
    SetTime(kStart);
  }
  // The environment leaves its provider alive on purpose; a test has many environments.
  ~ServerUnderTest() {
    env_.reset();
    delete provider_;
  }
  ServerUnderTest(const ServerUnderTest&) = delete;
  ServerUnderTest& operator=(const ServerUnderTest&) = delete;

  vigila::server::ServerEnv& Env() { return *env_; }
  vigila::server::SecurityProvider& Provider() { return *provider_; }

  void SetTime(int64_t seconds, int32_t microseconds = 0) {
    static_cast<tevra::check::ExplicitTimeSource*>(env_->GetTimeSource())
        ->SetTime(tevra::osa::TimeStruct(seconds, microseconds));
  }
  void Advance(int64_t microseconds) {
    tevra::osa::TimeStruct now;
    env_->GetTimeSource()->GetTime(now);
    now += microseconds;
    SetTime(now.seconds, now.microseconds);
  }
  void AdvanceSeconds(int64_t seconds) { Advance(seconds * 1000000); }

 private:
  std::unique_ptr<vigila::server::ServerEnv> env_;
  vigila::server::SecurityProvider* const provider_;
};

// One entry of an administration document.
inline std::string UserJson(const std::string& name, const std::string& password, int group) {
  return "{\"Name\":\"" + name + "\",\"Password\":\"" + password +
         "\",\"Group\":" + std::to_string(group) + "}";
}
// The same without a password.
inline std::string UserJson(const std::string& name, int group) {
  return "{\"Name\":\"" + name + "\",\"Group\":" + std::to_string(group) + "}";
}
inline std::string UsersJson(std::initializer_list<std::string> entries) {
  std::string text = "{\"Users\":[";
  for (const std::string& entry : entries) text += (text.back() == '[' ? "" : ",") + entry;
  return text + "]}";
}

// A test over a server with an empty store.
class ProviderTest : public testing::Test {
 protected:
  vigila::server::SecurityProvider& Provider() { return server_.Provider(); }

  void Add(const std::string& name, const std::string& password, int group) {
    ASSERT_EQ(0, Provider().AddUsers(UsersJson({UserJson(name, password, group)})));
  }
  void AddAdministrator() { Add("admin", "adminpass", 1); }

  // A password logon.
  std::string Logon(const std::string& name, const std::string& password, bool reuse = false) {
    return Provider().Authenticate(reuse, krand::lib::Base64::Encode(name),
                                   krand::lib::Base64::Encode(password));
  }
  static bool IsToken(const std::string& text) {
    return text.size() == 8 && text.find_first_not_of("0123456789ABCDEF") == std::string::npos &&
           text[0] <= '2';
  }
  std::vector<std::string> Texts(tevra::core::Logger::Level level) const {
    return log_.TextsOf("SecurityProvider", level);
  }
  std::vector<std::string> Notices() const { return Texts(tevra::core::Logger::kNotice); }
  std::vector<std::string> Debugs() const { return Texts(tevra::core::Logger::kDebug); }
  std::vector<std::string> Informations() const { return Texts(tevra::core::Logger::kInformation); }

  PlatformFixture platform_;
  AtRestKeyFixture key_;
  ServerUnderTest server_;
  CapturingLog log_;
};

}  // namespace support

#endif  // SUPPORT_PROVIDER_ENVIRONMENT_H_
