// Logons in process beside their cryptography: one RSA private operation with a key of the same
// size and padding, the MD5 of an HTTP digest, the SHA-1 of a UsernameToken.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <chrono>
#include <memory>
#include <string>

#include "benchmarks/support/server_in_process.h"
#include "vigila/server/at_rest_key.h"

namespace {

using benchmarks::ServerInProcess;
using krand::lib::Base64;
using vigila::model::User;
using Clock = std::chrono::steady_clock;

std::unique_ptr<ServerInProcess> server;

// The same operation as the at-rest cipher's, with nothing around it.
class RsaPrivateOperation {
 public:
  RsaPrivateOperation() {
    key_ = EVP_RSA_gen(vigila::server::AtRestKey::kDefaultBits);
    EVP_PKEY_CTX* encryption = NewContext(EVP_PKEY_encrypt_init);
    const unsigned char clear[] = "secret";
    size_t length = sizeof(cipher_);
    EVP_PKEY_encrypt(encryption, cipher_, &length, clear, 6);
    EVP_PKEY_CTX_free(encryption);
    cipher_length_ = length;
    decryption_ = NewContext(EVP_PKEY_decrypt_init);
  }
  ~RsaPrivateOperation() {
    EVP_PKEY_CTX_free(decryption_);
    EVP_PKEY_free(key_);
  }

  bool Run() {
    unsigned char clear[512];
    size_t length = sizeof(clear);
    return EVP_PKEY_decrypt(decryption_, clear, &length, cipher_, cipher_length_) == 1 &&
           length == 6;
  }

 private:
  EVP_PKEY_CTX* NewContext(int (*init)(EVP_PKEY_CTX*)) {
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new(key_, nullptr);
    init(context);
    EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_OAEP_PADDING);
    EVP_PKEY_CTX_set_rsa_oaep_md(context, EVP_sha256());
    return context;
  }

  EVP_PKEY* key_ = nullptr;
  EVP_PKEY_CTX* decryption_ = nullptr;
  unsigned char cipher_[512];
  size_t cipher_length_ = 0;
};

void FloorRsaPrivateOperation(benchmark::State& state) {
  RsaPrivateOperation rsa;
  for (auto _ : state) {
    if (!rsa.Run()) state.SkipWithError("decryption");
  }
}
BENCHMARK(FloorRsaPrivateOperation);

void PasswordLogon(benchmark::State& state) {
  for (auto _ : state) {
    const std::string token = server->Logon("alice", "secret");
    if (token.size() != 8 || token == "NO_TOKEN") state.SkipWithError("refused");
    server->Provider().Logout(token);  // sessions must not pile up; a thousandth of the logon
  }
}
BENCHMARK(PasswordLogon);

void WrongPassword(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(server->Logon("alice", "wrong!"));
}
BENCHMARK(WrongPassword);

void UnknownUser(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(server->Logon("ghost", "secret"));
}
BENCHMARK(UnknownUser);

const char kCnonce[] = "0a4f113b";
const char kHa2[] = "39aff3a2bab6126f332b942af96d3366";

// A client's answers on one nonce, the count rising.
class DigestClient {
 public:
  DigestClient() : nonce_(server->Provider().GetNonce()) {}

  void Next() {
    char text[9];
    snprintf(text, sizeof(text), "%08x", ++count_);
    nc_ = text;
    response_ = User::MD5sum(ha1_ + ":" + nonce_ + ":" + nc_ + ":" + kCnonce + ":auth:" + kHa2);
  }
  std::string Send(bool reuse) const {
    return server->Provider().AuthenticateHttp(reuse, "alice", nonce_, kHa2, false, "auth", kCnonce,
                                               nc_, response_);
  }

 private:
  const std::string ha1_ = User::MD5sum("alice:Varno:secret");
  const std::string nonce_;
  std::string nc_;
  std::string response_;
  unsigned count_ = 0;
};

// With the HA1 at hand and the HA2 in the request, one MD5 is left: that of the response.
void FloorMd5(benchmark::State& state) {
  const std::string response = User::MD5sum("alice:Varno:secret") + ":" + std::string(32, 'n') +
                               ":00000001:" + kCnonce + ":auth:" + kHa2;
  for (auto _ : state) benchmark::DoNotOptimize(User::MD5sum(response));
}
BENCHMARK(FloorMd5);

// The pauses of the library cost more than what is measured here: the clock is read by hand.
template <bool reuse>
void HttpDigestLogon(benchmark::State& state) {
  DigestClient client;
  client.Next();
  client.Send(reuse);
  for (auto _ : state) {
    client.Next();
    const auto start = Clock::now();
    const std::string token = client.Send(reuse);
    const auto end = Clock::now();
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
    if (token.size() != 8 || token == "_EXPIRED") state.SkipWithError("refused");
    if (!reuse) server->Provider().Logout(token);
  }
  server->Provider().Invalidate("*");
}
BENCHMARK(HttpDigestLogon<true>)->Name("HttpDigestLogonReusing")->UseManualTime();
BENCHMARK(HttpDigestLogon<false>)->Name("HttpDigestLogonNewSession")->UseManualTime();

std::string WsseText(const std::string& nonce, const std::string& created) {
  return nonce + created + "secret";
}

void FloorSha1AndRsaPrivateOperation(benchmark::State& state) {
  RsaPrivateOperation rsa;
  const std::string text = WsseText(std::string(16, 'n'), "2026-11-21T02:01:00Z");
  for (auto _ : state) {
    unsigned char sha[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(), sha);
    benchmark::DoNotOptimize(sha);
    if (!rsa.Run()) state.SkipWithError("decryption");
  }
}
BENCHMARK(FloorSha1AndRsaPrivateOperation);

// A fresh request of alice's.
std::string SendUsernameToken() {
  static uint64_t number = 0;
  const std::string created = tevra::osa::DateTime(tevra::osa::TimeStruct(true)).ToString(0);
  const std::string nonce = "nonce " + std::to_string(++number);
  const std::string text = WsseText(nonce, created);
  unsigned char sha[SHA_DIGEST_LENGTH];
  SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(), sha);
  const std::string digest(reinterpret_cast<const char*>(sha), sizeof(sha));
  return server->Provider().AuthenticateWsse(false, "alice", Base64::Encode(digest),
                                             Base64::Encode(nonce), created);
}

// With the client's share of the work, a thousandth of the server's.
void WsseLogon(benchmark::State& state) {
  for (auto _ : state) {
    const std::string token = SendUsernameToken();
    if (token.size() != 8 || token == "NO_TOKEN") state.SkipWithError("refused");
    server->Provider().Logout(token);
  }
}
BENCHMARK(WsseLogon);

}  // namespace

int main(int argc, char** argv) {
  server = std::make_unique<ServerInProcess>();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  server.reset();
}
