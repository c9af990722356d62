#include "visitor.h"

#include <time.h>

#include <algorithm>
#include <atomic>
#include <string_view>

#include "krand/base64/base64.h"
#include "support/device_with_accounts.h"
#include "tevra/crypto/gcrypt_digest.h"

namespace soak {
namespace {

using krand::lib::Base64;
using support::DeviceWithAccounts;
using tevra::crypto::GCryptDigest;
using vigila::client::VigilaClient;

constexpr char kViewersPath[] = "/jpeg/1";
constexpr char kAdminsPath[] = "/inject.cgi";
constexpr char kOpenPath[] = "/system";
constexpr int kCachedQuestions = 50;
constexpr size_t kDeadTokens = 12;

bool IsSession(const std::string& token) {
  return token.size() == 8 && token.find_first_not_of("0123456789ABCDEF") == std::string::npos;
}

std::string Md5(const std::string& text) {
  const tevra::crypto::MD5 md5(text);
  std::string hex;
  for (size_t i = 0; i < tevra::crypto::MD5::kSize; ++i) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    hex += kDigits[md5.Digest()[i] >> 4];
    hex += kDigits[md5.Digest()[i] & 15];
  }
  return hex;
}

std::string UtcNow() {
  const time_t now = time(nullptr);
  tm parts;
  gmtime_r(&now, &parts);
  char text[32];
  strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

bool Holds(const std::vector<std::string>& list, const char* text) {
  return std::find(list.begin(), list.end(), text) != list.end();
}

}  // namespace

Visitor::Visitor(int number, const VigilaClient& client, const OtherProcess<Revoker>& revoker,
                 const Lives& lives, Ledger& ledger)
    : client_(client),
      revoker_(revoker),
      lives_(lives),
      ledger_(ledger),
      number_(number),
      viewer_("view" + std::to_string(number)),
      guest_("guest" + std::to_string(number)),
      brief_("brief" + std::to_string(number)) {}

void Visitor::Round() {
  LogOn();
  AskWhatViewersMay();
  AskWhatNoOneMay();
  AskWithDeadTokens();
  EndSessions();
  HaveGrantsTakenBack();
}

void Visitor::LogOn() {
  const Moment now = lives_.Now();
  if (logged_on_.life != 0 && now.life != logged_on_.life) {
    // Whatever the old daemon granted must be forgotten when the new one is ready.
    Bury(token_, "the daemon died");
    logged_on_ = Moment();
  }
  std::string token;
  Ask("Authenticate", [&] {
    return client_.Authenticate(viewer_, DeviceWithAccounts::PasswordOf(viewer_), "cache", token) &&
           IsSession(token);
  });
  const Moment after = lives_.Now();
  if (now.IsCalmUntil(after) && IsSession(token)) {
    token_ = token;
    logged_on_ = after;
  }
  Ask("AuthenticateHttp", [&] { return LogOnWithDigest(DeviceWithAccounts::PasswordOf(viewer_)); });
  Ask("AuthenticateWsse",
      [&] { return LogOnWithWsse(viewer_, DeviceWithAccounts::PasswordOf(viewer_), token); });
}

void Visitor::AskWhatViewersMay() {
  for (int i = 0; i < kCachedQuestions; ++i) {
    AskInSession("Authorize", [&] { return client_.Authorize(token_, kViewersPath); });
    AskInSession("IsAuthenticated", [&] { return client_.IsAuthenticated(token_); });
    Ask("IsProtected",
        [&] { return client_.IsProtected(kAdminsPath) && !client_.IsProtected(kOpenPath); });
  }
  AskInSession("GetCredentials", [&] { return client_.GetCredentials(token_) == viewer_; });
  AskInSession("GetAllowedPaths",
               [&] { return Holds(client_.GetAllowedPaths(token_), kOpenPath); });
  AskInSession("GetAllowedPermissions",
               [&] { return !client_.GetAllowedPermissions(token_).empty(); });
  Ask("GetNonce", [&] { return client_.GetNonce().size() == 32; });
}

void Visitor::AskWhatNoOneMay() {
  std::string token;
  client_.Authenticate("victim", "wrong", "cache", token);
  MustNotBe("a wrong password", IsSession(token));
  LogOnWithWsse("victim", "wrong", token);
  MustNotBe("a wrong UsernameToken", IsSession(token));
  MustNotBe("a wrong digest", LogOnWithDigest("wrong"));
  MustNotBe("an administrator's path to a viewer", client_.Authorize(token_, kAdminsPath));
  MustNotBe("the list of it", Holds(client_.GetAllowedPaths(token_), kAdminsPath));
  for (const char* invalid : {"NO_TOKEN", "00000000", ""}) {
    MustNotBe("a viewer's path to no one", client_.Authorize(invalid, kViewersPath));
    MustNotBe("a session to no one", client_.IsAuthenticated(invalid));
    MustNotBe("a name to no one", !client_.GetCredentials(invalid).empty());
  }
}

void Visitor::AskWithDeadTokens() {
  for (const DeadToken& dead : dead_) {
    for (const bool authorize : {true, false}) {
      const bool granted = authorize ? client_.Authorize(dead.token, kViewersPath)
                                     : client_.IsAuthenticated(dead.token);
      MustNotBe(dead.why.c_str(), granted);
    }
  }
  // The daemon of the session may be dead already; until the next one is ready that is no fault.
  const Moment now = lives_.Now();
  if (now.condition != Condition::kDead || now.life != logged_on_.life) return;
  if (client_.Authorize(token_, kViewersPath)) ledger_.NoteStaleGrant(now.since, now.at);
}

void Visitor::EndSessions() {
  for (const bool logout : {true, false}) {
    const char* operation = logout ? "Logout" : "Invalidate";
    const Moment before = lives_.Now();
    std::string token;
    Ask(operation, [&] {
      if (!LogOnWithWsse(guest_, DeviceWithAccounts::PasswordOf(guest_), token)) return false;
      if (!client_.Authorize(token, kViewersPath) || !client_.IsAuthenticated(token)) return false;
      if (logout) {
        if (!client_.Logout(token)) return false;
      } else {
        client_.Invalidate(guest_);
      }
      const bool ended = client_.GetCredentials(token).empty();
      // Elsewhere than in calm, a call that failed looks like an ended session.
      if (ended && (logout || Ledger::IsOwed(before, lives_.Now()))) Bury(token, operation);
      return ended;
    });
    AskWithDeadTokens();
  }
}

void Visitor::HaveGrantsTakenBack() {
  HaveTakenBack("invalidate", guest_, kViewersPath);
  HaveTakenBack("logout", guest_, kViewersPath);
  Tell("add", brief_);
  HaveTakenBack("delete", brief_, kViewersPath);
  if (number_ != 0) return;  // there is one rule
  Tell("open", "rule");
  HaveTakenBack("close", guest_, Revoker::kClosablePath);
}

void Visitor::HaveTakenBack(const std::string& verb, const std::string& name, const char* path) {
  const std::string password = DeviceWithAccounts::PasswordOf(name);
  std::string token;
  if (!client_.Authenticate(name, password, "cache", token)) return;
  // Asked for twice, the grant is in memory.
  if (!client_.Authorize(token, path) || !client_.Authorize(token, path)) return;
  if (!Tell(verb, verb == "logout" ? token : name)) return;
  ledger_.NoteRevocation(verb, lives_.Now().condition);
  const std::string why = "a grant that '" + verb + "' had ended";
  MustNotBe(why.c_str(), client_.Authorize(token, path));
  if (verb == "close") return;
  MustNotBe(why.c_str(), client_.IsAuthenticated(token));
  Bury(token, why);
  if (verb != "delete") return;
  MustNotBe("a logon to a deleted account",
            client_.Authenticate(name, password, "cache", token) && IsSession(token));
}

void Visitor::Ask(const char* operation, const std::function<bool()>& is_right) {
  const Moment before = lives_.Now();
  const bool right = is_right();
  ledger_.Note(operation, before, lives_.Now(), right);
}

void Visitor::AskInSession(const char* operation, const std::function<bool()>& is_right) {
  const Moment before = lives_.Now();
  const bool right = is_right();
  if (logged_on_.life == 0 || before.life != logged_on_.life) return;
  ledger_.Note(operation, before, lives_.Now(), right);
}

void Visitor::MustNotBe(const char* what, bool granted) {
  if (granted) ledger_.NoteWrongGrant(what);
}

void Visitor::Bury(const std::string& token, const std::string& why) {
  dead_.push_back({token, why});
  if (dead_.size() > kDeadTokens) dead_.pop_front();
}

bool Visitor::Tell(const std::string& verb, const std::string& whom) const {
  return revoker_.Ask(verb + ' ' + whom) == Revoker::kDone;
}

bool Visitor::LogOnWithDigest(const std::string& password) {
  const std::string nonce = client_.GetNonce();
  const std::string ha1 = Md5(viewer_ + ":Varno:" + password);
  const std::string ha2 = Md5(std::string("GET:") + kViewersPath);
  const std::string response = Md5(ha1 + ":" + nonce + ":00000001:cnonce:auth:" + ha2);
  std::string token;
  return client_.AuthenticateHttp(viewer_, nonce, ha2, false, "auth", "cnonce", "00000001",
                                  response, "cache", token) &&
         IsSession(token);
}

bool Visitor::LogOnWithWsse(const std::string& name, const std::string& password,
                            std::string& token) {
  static std::atomic<int> last_nonce{0};
  const std::string nonce = "nonce " + std::to_string(++last_nonce);
  const std::string created = UtcNow();
  const std::string text = nonce + created + password;
  GCryptDigest sha1(GCryptDigest::kSha1);
  sha1.Update(text.data(), text.size());
  const std::string digest(reinterpret_cast<const char*>(sha1.Digest()), sha1.DigestSize());
  return client_.AuthenticateWsse(name, Base64::Encode(digest), Base64::Encode(nonce), created, "",
                                  token) &&
         IsSession(token);
}

}  // namespace soak
