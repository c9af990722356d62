#ifndef SUPPORT_CLIENT_FIXTURE_H_
#define SUPPORT_CLIENT_FIXTURE_H_

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "support/capturing_log.h"
#include "support/recording_provider.h"
#include "tevra/interfaces/revocation_page.h"
#include "vigila/check/explicit_time_source.h"
#include "vigila/client/vigila_client_impl.h"

namespace vigila::client {

// A proxy that can be interrupted while it asks, and that tells when it goes.
class ProxyDouble final : public support::RecordingProvider {
 public:
  explicit ProxyDouble(int* alive) : alive_(alive) { ++*alive_; }
  ~ProxyDouble() override { --*alive_; }

  bool Authorize(const std::string& token, const std::string& path) override {
    const bool granted = RecordingProvider::Authorize(token, path);
    if (while_asking) while_asking();
    return granted;
  }

  void Fail() { failure = std::make_exception_ptr(std::runtime_error("no server")); }
  void Recover() { failure = nullptr; }
  void UsePage(std::shared_ptr<const tevra::interfaces::RevocationPage> page) {
    SetRevocationPage(std::move(page));
  }
  void HearFrom(uint64_t instance) { NoteAnswerOf(instance); }

  std::function<void()> while_asking;

 private:
  int* const alive_;
};

// Clients over a proxy and a clock of the test's own. Every VigilaClient built while the fixture
// lives stands on the proxy of the latest NewImpl.
class ClientFixture : public testing::Test {
 protected:
  ClientFixture() {
    At(1000);
    VigilaClient::Impl::SetMaker([this] { return NewImpl(); });
  }
  ~ClientFixture() override { VigilaClient::Impl::SetMaker({}); }

  std::unique_ptr<VigilaClient::Impl> NewImpl() {
    auto proxy = std::make_unique<ProxyDouble>(&proxies_);
    proxy->text = "12345678";
    if (prepare_) prepare_(*proxy);
    proxy_ = proxy.get();
    return std::make_unique<VigilaClient::Impl>(std::move(proxy), clock_);
  }

  void At(int64_t seconds, int32_t microseconds = 0) {
    clock_.SetTime(tevra::osa::TimeStruct(seconds, microseconds));
  }
  std::vector<std::string> Log() const { return log_.TextsOf("VigilaClient"); }

  support::CapturingLog log_;
  tevra::check::ExplicitTimeSource clock_;
  // A server's, for tests that have the proxy use it.
  std::shared_ptr<tevra::interfaces::RevocationPage> page_ =
      std::make_shared<tevra::interfaces::RevocationPage>(1);
  int proxies_ = 0;
  ProxyDouble* proxy_ = nullptr;
  std::function<void(ProxyDouble&)> prepare_;
};

}  // namespace vigila::client

#endif  // SUPPORT_CLIENT_FIXTURE_H_
