// Logons in process beside their cryptography: one RSA private operation with the store's own key,
// the MD5 of an HTTP digest, the SHA-1 of a UsernameToken.
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "benchmarks/support/pairs.h"
#include "benchmarks/support/server_in_process.h"
#include "vigila/server/at_rest_key.h"

namespace {

using benchmarks::Batch;
using benchmarks::Clock;
using benchmarks::RegisterPair;
using benchmarks::ServerInProcess;
using benchmarks::Timed;
using krand::lib::Base64;
using vigila::model::User;
using vigila::server::AtRestKey;

std::unique_ptr<ServerInProcess> server;

// The same operation as the at-rest cipher's, with nothing around it.
class RsaPrivateOperation {
 public:
  RsaPrivateOperation() {
    const auto file = AtRestKey::Load(server->Platform().SettingsDir() + "/vigila.key",
                                      AtRestKey::Kind::kOwnFile);
    if (file == nullptr) throw std::runtime_error("the store has no key");
    key_ = file->Build();
    const Context encryption = NewContext(EVP_PKEY_encrypt_init);
    const unsigned char clear[] = "secret";
    cipher_length_ = sizeof(cipher_);
    EVP_PKEY_encrypt(encryption.get(), cipher_, &cipher_length_, clear, 6);
    decryption_ = NewContext(EVP_PKEY_decrypt_init);
  }

  void Run() {
    unsigned char clear[512];
    size_t length = sizeof(clear);
    if (EVP_PKEY_decrypt(decryption_.get(), clear, &length, cipher_, cipher_length_) != 1 ||
        length != 6) {
      throw std::runtime_error("decryption");
    }
  }

 private:
  struct Free {
    void operator()(EVP_PKEY_CTX* context) const { EVP_PKEY_CTX_free(context); }
  };
  using Context = std::unique_ptr<EVP_PKEY_CTX, Free>;

  Context NewContext(int (*init)(EVP_PKEY_CTX*)) {
    Context context(EVP_PKEY_CTX_new(key_.get(), nullptr));
    init(context.get());
    EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_OAEP_PADDING);
    EVP_PKEY_CTX_set_rsa_oaep_md(context.get(), EVP_sha256());
    return context;
  }

  AtRestKey::Pointer key_;
  Context decryption_;
  unsigned char cipher_[512];
  size_t cipher_length_ = 0;
};

Batch RsaPrivateOperations() {
  return Timed([rsa = std::make_shared<RsaPrivateOperation>()] { rsa->Run(); });
}

std::string Granted(std::string token) {
  if (token.size() != 8 || token == "NO_TOKEN" || token == "_EXPIRED") {
    throw std::runtime_error("refused");
  }
  return token;
}

// The log-outs, which keep sessions from piling up, are a thousandth of the logons.
void PasswordLogon() {
  server->Provider().Logout(Granted(server->Logon("alice", "secret")));
}
void WrongPassword() {
  server->Logon("alice", "wrong!");
}
void UnknownUser() {
  server->Logon("ghost", "secret");
}

std::string Sha1Of(const std::string& text) {
  unsigned char sha[SHA_DIGEST_LENGTH];
  SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(), sha);
  return std::string(reinterpret_cast<const char*>(sha), sizeof(sha));
}

// A fresh request of alice's, with the client's share of the work, a thousandth of the server's.
void UsernameTokenLogon() {
  static uint64_t number = 0;
  const std::string created = tevra::osa::DateTime(tevra::osa::TimeStruct(true)).ToString(0);
  const std::string nonce = "nonce " + std::to_string(++number);
  const std::string digest = Sha1Of(nonce + created + "secret");
  server->Provider().Logout(Granted(server->Provider().AuthenticateWsse(
      false, "alice", Base64::Encode(digest), Base64::Encode(nonce), created)));
}

const char kCnonce[] = "0a4f113b";
const char kHa2[] = "39aff3a2bab6126f332b942af96d3366";

// With the HA1 at hand and the HA2 in the request, one MD5 is left: that of the response.
std::string ResponseText(const std::string& nonce, const std::string& nc) {
  static const std::string ha1 = User::MD5sum("alice:Varno:secret");
  return ha1 + ":" + nonce + ":" + nc + ":" + kCnonce + ":auth:" + kHa2;
}

// Digest logons of one client on one nonce, the count rising. Its own share of the work is done
// before the clock starts, the log-outs after it has stopped.
class DigestLogons {
 public:
  explicit DigestLogons(bool reuse) : reuse_(reuse), nonce_(server->Provider().GetNonce()) {}
  ~DigestLogons() { server->Provider().Invalidate("*"); }

  double Run(int count) {
    std::vector<std::pair<std::string, std::string>> requests;
    for (int i = 0; i < count; ++i) {
      char nc[9];
      snprintf(nc, sizeof(nc), "%08x", ++count_);
      requests.emplace_back(nc, User::MD5sum(ResponseText(nonce_, nc)));
    }
    std::vector<std::string> tokens(requests.size());
    const auto start = Clock::now();
    for (size_t i = 0; i < requests.size(); ++i) {
      tokens[i] =
          server->Provider().AuthenticateHttp(reuse_, "alice", nonce_, kHa2, false, "auth", kCnonce,
                                              requests[i].first, requests[i].second);
    }
    const double cost = benchmarks::Nanoseconds(Clock::now() - start) / count;
    for (const std::string& token : tokens) {
      Granted(token);
      if (!reuse_) server->Provider().Logout(token);
    }
    return cost;
  }

 private:
  const bool reuse_;
  const std::string nonce_;
  unsigned count_ = 0;
};

std::pair<Batch, Batch> DigestLogon(bool reuse) {
  const auto logons = std::make_shared<DigestLogons>(reuse);
  const std::string text = ResponseText(std::string(32, 'n'), "00000001");
  return {[logons](int count) { return logons->Run(count); },
          Timed([text] { benchmark::DoNotOptimize(User::MD5sum(text)); })};
}

void RegisterRsa(const std::string& name, std::optional<double> budget, void (*logon)()) {
  RegisterPair({.name = name, .floor = "one RSA private operation", .budget = budget, .pairs = 51},
               [logon] { return std::pair(Timed(logon), RsaPrivateOperations()); });
}

}  // namespace

int main(int argc, char** argv) {
  server = std::make_unique<ServerInProcess>();
  PasswordLogon();  // makes the key and everything that the first one makes
  RegisterRsa("password logon", 1.03, PasswordLogon);
  RegisterRsa("UsernameToken logon", 1.03, UsernameTokenLogon);
  RegisterRsa("wrong password", {}, WrongPassword);
  RegisterRsa("unknown user", {}, UnknownUser);
  RegisterPair({.name = "digest logon, session reused", .floor = "its MD5", .budget = 3.0},
               [] { return DigestLogon(true); });
  RegisterPair({.name = "digest logon, new session", .floor = "its MD5"},
               [] { return DigestLogon(false); });
  const int status = benchmarks::RunAll(argc, argv);
  server.reset();
  return status;
}
