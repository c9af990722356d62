#include "vigila/client/vigila_client_impl.h"

#include <cxxabi.h>

#include <utility>

#include "tevra/interfaces/access_denied.h"
#include "tevra/msgbus/connection_refused.h"
#include "tevra/osa/sanitizer.h"
#include "vigila/client/monotonic_time_source.h"
#include "vigila/client/session_commands.h"
#include "vigila/contract/result_tokens.h"

namespace vigila::client {

using tevra::core::Logger;
using tevra::interfaces::AnswerStamp;
using tevra::interfaces::RevocationPage;
using tevra::osa::ITimeSource;
using tevra::osa::TimeSpan;

namespace {

constexpr double kLifetimeSecs = 1.5;

// Neither of the two is ever destroyed: threads may call while the process ends.
VigilaClient::Impl::Maker& MakerInForce() {
  static auto& maker = *new VigilaClient::Impl::Maker;
  return maker;
}

const ITimeSource& TheMonotonicClock() {
  static const auto& clock = *new MonotonicTimeSource;
  return clock;
}

// Deliberate: every other text, "Cache" and "cache " too, asks for a session of its own.
bool IsReuse(const std::string& mode) {
  return mode == VigilaClient::kReuseMode;
}

bool IsSession(const std::string& token) {
  return !token.empty() && token != contract::kNoToken && token != contract::kExpiredToken;
}

const char* Text(bool answer) {
  return answer ? "true" : "false";
}

// The session whose end ends the answer: named by the question, by the answer, or none.
void TieToQuestion(AnswerStamp& stamp, const AuthorizeCommand::Key& question) {
  stamp.Concerns(question.token);
}
void TieToQuestion(AnswerStamp& stamp, const IsAuthenticatedCommand::Key& question) {
  stamp.Concerns(question.token);
}
void TieToQuestion(AnswerStamp&, const IsProtectedCommand::Key&) {}
void TieToQuestion(AnswerStamp&, const AuthenticateCommand::Key&) {}

bool TieToAnswer(AnswerStamp& stamp, const std::string& token) {
  return stamp.ConcernsAnswered(token);
}
bool TieToAnswer(AnswerStamp&, bool) {
  return true;
}

}  // namespace

VigilaClient::Impl::Impl()
    : authenticate_cache_(TimeSpan::FromSeconds(kLifetimeSecs), TheMonotonicClock()),
      authorize_cache_(TimeSpan::FromSeconds(kLifetimeSecs), TheMonotonicClock()),
      is_authenticated_cache_(TimeSpan::FromSeconds(kLifetimeSecs), TheMonotonicClock()),
      is_protected_cache_(TimeSpan::FromSeconds(kLifetimeSecs), TheMonotonicClock()),
      bus_(std::in_place),
      provider_(Provider::CreateClient(&*bus_)),
      logger_(Logger::GetLogger("VigilaClient")),
      refusals_(TheMonotonicClock()) {
  Subscribe();
  bus_->StartServer();
}

VigilaClient::Impl::Impl(std::unique_ptr<Provider> provider, const ITimeSource& clock)
    : authenticate_cache_(TimeSpan::FromSeconds(kLifetimeSecs), clock),
      authorize_cache_(TimeSpan::FromSeconds(kLifetimeSecs), clock),
      is_authenticated_cache_(TimeSpan::FromSeconds(kLifetimeSecs), clock),
      is_protected_cache_(TimeSpan::FromSeconds(kLifetimeSecs), clock),
      provider_(std::move(provider)),
      logger_(Logger::GetLogger("VigilaClient")),
      refusals_(clock) {
  Subscribe();
}

VigilaClient::Impl::~Impl() {
  try {
    provider_->RemoveChangeListeners(this);
    provider_.reset();
  } catch (...) {
    // Deliberate: a proxy that did not give the listener back may still call it, or hold its lock;
    // it is left alone for good rather than destroyed under somebody's feet.
    static_cast<void>(provider_.release());
  }
}

std::unique_ptr<VigilaClient::Impl> VigilaClient::Impl::Make() {
  const Maker& maker = MakerInForce();
  return maker ? maker() : std::make_unique<Impl>();
}

void VigilaClient::Impl::SetMaker(Maker maker) {
  MakerInForce() = std::move(maker);
}

// Deliberate: the mode is no part of the question's key, and every answer but the empty one is
// kept, refusals too: a wrong password repeated at once is refused without the server.
bool VigilaClient::Impl::Authenticate(const std::string& username, const std::string& password,
                                      const std::string& mode, std::string& token) {
  const auto [answer, cached] = Ask(
      authenticate_cache_, {username, password},
      [&] { return std::make_unique<AuthenticateCommand>(username, password, IsReuse(mode)); },
      [](const std::string& fresh) { return !fresh.empty(); });
  if (cached) {
    logger_->Debug("cached authentication for %s, token = %s", username.c_str(), answer.c_str());
  }
  // Deliberate: which texts are failures differs between the three logons, and the answer goes to
  // the caller also on failure, so that "_EXPIRED" and "DISABLED" can be told apart.
  const bool success =
      ReportLogon(username, answer, IsSession(answer) && answer != contract::kDisabledToken);
  token = answer;
  return success;
}

bool VigilaClient::Impl::AuthenticateHttp(const std::string& username, const std::string& nonce,
                                          const std::string& ha2, bool sess, const std::string& qop,
                                          const std::string& cnonce, const std::string& nc,
                                          const std::string& response, const std::string& mode,
                                          std::string& token) {
  AuthenticateHttpCommand command(username, nonce, ha2, qop, cnonce, nc, response, IsReuse(mode),
                                  sess);
  RunCommand(command);
  const bool success = ReportLogon(username, command.GetAnswer(), IsSession(command.GetAnswer()));
  token = command.GetAnswer();
  return success;
}

bool VigilaClient::Impl::AuthenticateWsse(const std::string& username,
                                          const std::string& password_digest,
                                          const std::string& nonce, const std::string& created,
                                          const std::string& mode, std::string& token) {
  AuthenticateWsseCommand command(username, password_digest, nonce, created, IsReuse(mode));
  RunCommand(command);
  const std::string& answer = command.GetAnswer();
  const bool success = ReportLogon(username, answer,
                                   IsSession(answer) && answer != contract::kDisabledToken &&
                                       answer != contract::kNoDigestToken);
  token = answer;
  return success;
}

bool VigilaClient::Impl::Authorize(const std::string& token, const std::string& path) {
  const auto [granted, cached] = Ask(
      authorize_cache_, {token, path},
      [&] { return std::make_unique<AuthorizeCommand>(token, path); },
      [](bool fresh) { return fresh; });
  return ReportAuthorization(token, path, granted, cached);
}

std::optional<bool> VigilaClient::Impl::TryAuthorize(const std::string& token,
                                                     const std::string& path) {
  bool granted = false;
  if (!Remember(authorize_cache_, {token, path}, granted)) return std::nullopt;
  return ReportAuthorization(token, path, granted, true);
}

bool VigilaClient::Impl::IsAuthenticated(const std::string& token) {
  // Deliberate: the server calls "NO_TOKEN" authenticated; no caller of the client means that.
  if (token == contract::kNoToken) return false;
  const auto [authenticated, cached] = Ask(
      is_authenticated_cache_, {token},
      [&] { return std::make_unique<IsAuthenticatedCommand>(token); },
      [](bool fresh) { return fresh; });
  if (cached) logger_->Debug("cached is_authenticated for %s", token.c_str());
  logger_->Debug("is_authenticated for %s is %s", token.c_str(), Text(authenticated));
  return authenticated;
}

// Deliberate: every answer is kept, and every hit renews it: also, where no page tells whether the
// server lives, the false one that stands for an unreachable server. The server's next appearance
// empties the caches; until then Authorize refuses.
bool VigilaClient::Impl::IsProtected(const std::string& path) {
  const auto [is_protected, cached] = Ask(
      is_protected_cache_, {path}, [&] { return std::make_unique<IsProtectedCommand>(path); },
      [](bool) { return true; });
  return ReportProtection(path, is_protected, cached);
}

std::optional<bool> VigilaClient::Impl::TryIsProtected(const std::string& path) {
  bool is_protected = false;
  if (!Remember(is_protected_cache_, {path}, is_protected)) return std::nullopt;
  return ReportProtection(path, is_protected, true);
}

// Deliberate: neither this nor Logout touches a cache; the server's announcement does.
void VigilaClient::Impl::Invalidate(const std::string& token) {
  InvalidateCommand command(token);
  RunCommand(command);
}

bool VigilaClient::Impl::Logout(const std::string& token) {
  LogoutCommand command(token);
  RunCommand(command);
  return command.GetAnswer();
}

std::string VigilaClient::Impl::GetCredentials(const std::string& token) {
  GetCredentialsCommand command(token);
  RunCommand(command);
  return command.GetAnswer();
}

std::string VigilaClient::Impl::GetNonce() {
  GetNonceCommand command;
  RunCommand(command);
  return command.GetAnswer();
}

std::vector<std::string> VigilaClient::Impl::GetAllowedPaths(const std::string& token) {
  GetAllowedPathsCommand command(token);
  RunCommand(command);
  return command.GetAnswer();
}

std::vector<std::string> VigilaClient::Impl::GetAllowedPermissions(const std::string& token) {
  GetAllowedPermissionsCommand command(token);
  RunCommand(command);
  return command.GetAnswer();
}

VigilaClient::Counts VigilaClient::Impl::GetCounts() const {
  Counts counts;
  const auto add = [&counts](const auto& cache) { counts.cache_hits += cache.Hits(); };
  add(authenticate_cache_);
  add(authorize_cache_);
  add(is_authenticated_cache_);
  add(is_protected_cache_);
  counts.cache_misses = misses_.load(std::memory_order_relaxed);
  counts.failures = failures_.load(std::memory_order_relaxed);
  return counts;
}

void VigilaClient::Impl::FlushCaches(bool) {
  authenticate_cache_.Clear();
  authorize_cache_.Clear();
  is_authenticated_cache_.Clear();
  is_protected_cache_.Clear();
}

template <typename T>
bool VigilaClient::Impl::Remember(Cache<T>& cache, const typename T::Key& question,
                                  typename T::Answer& answer) {
  return !IsInherited() && cache.FindLive(question, answer);
}

template <typename T, typename MakeCommand, typename IsKept>
VigilaClient::Impl::Reply<T> VigilaClient::Impl::Ask(Cache<T>& cache,
                                                     const typename T::Key& question,
                                                     MakeCommand make, IsKept is_kept) {
  Reply<T> reply{};
  // No change ever reaches a child of fork, so it must not begin with the parent's answers.
  if (IsInherited()) {
    ReportFailure();
    return reply;
  }
  reply.cached = cache.FindLiveOrPrune(question, reply.answer);
  if (reply.cached) return reply;

  misses_.fetch_add(1, std::memory_order_relaxed);
  std::unique_ptr<T> command = make();
  // In this order, before the question: whatever ends the stamp's page, or puts another in its
  // place, raises the generation after it is read here.
  const uint64_t strays = provider_->StrayAnswers();
  uint64_t generation = cache.Generation();
  AnswerStamp stamp(provider_->GetRevocationPage());
  while (HeedEpoch(stamp)) {
    generation = cache.Generation();
    stamp = AnswerStamp(provider_->GetRevocationPage());
  }
  TieToQuestion(stamp, question);
  const bool answered = RunCommand(*command);
  reply.answer = command->GetAnswer();
  if (is_kept(reply.answer) && TieToAnswer(stamp, reply.answer) &&
      IsOfPage(stamp, strays, answered)) {
    cache.Store(std::move(command), generation, std::move(stamp));
  }
  return reply;
}

bool VigilaClient::Impl::HeedEpoch(const AnswerStamp& stamp) {
  if (!stamp.Page()) return false;
  const uint64_t sum = stamp.Page()->Instance() + stamp.Epoch();
  if (heeded_.load(std::memory_order_relaxed) == sum) return false;
  heeded_.store(sum, std::memory_order_relaxed);
  FlushCaches(true);
  return true;
}

// Whether the server that writes the stamp's page gave the answer. What no server said no page can
// take back; only where nothing but a notification ends an answer, a guess is kept as one.
bool VigilaClient::Impl::IsOfPage(const AnswerStamp& stamp, uint64_t strays, bool answered) const {
  if (!stamp.Page() || provider_->StrayAnswers() != strays) return false;
  return answered || stamp.Page() == RevocationPage::Unchanging();
}

TEVRA_PASSES_CANCELLATION
bool VigilaClient::Impl::RunCommand(Command& command) {
  if (IsInherited()) {
    ReportFailure();
    return false;
  }
  try {
    command.Execute(provider_.get());
    return true;
  } catch (const abi::__forced_unwind&) {
    throw;  // the thread is cancelled, which no handler may stop
  } catch (const tevra::interfaces::AccessDenied& refusal) {
    ReportRefusal(refusal.what());
  } catch (const tevra::msgbus::ConnectionRefused& refusal) {
    ReportRefusal(refusal.what());
  } catch (...) {
    ReportFailure();
  }
  return false;
}

void VigilaClient::Impl::ReportFailure() {
  failures_.fetch_add(1, std::memory_order_relaxed);
  logger_->Error("could not connect to vigila");
}

void VigilaClient::Impl::Subscribe() {
  using Listener = tevra::core::VoidObjectMethodDelegate1<Impl, void (Impl::*)(bool), bool>;
  provider_->AddChangeListener(std::make_unique<Listener>(this, &Impl::OnChange));
}

// Where the server itself writes the page, the page tells which sessions have ended; who logs out
// does not cost everyone else their answers.
void VigilaClient::Impl::OnChange(bool value) {
  const std::shared_ptr<const RevocationPage> page = provider_->GetRevocationPage();
  const bool page_tells = page && page->Instance() != 0;
  if (!value && page_tells) return;
  FlushCaches(value);
}

bool VigilaClient::Impl::ReportAuthorization(const std::string& token, const std::string& path,
                                             bool granted, bool cached) {
  // Asked for every request of a web server, so the lines cost one look at the level together.
  if (!Logger::IsEnabled(Logger::kDebug)) return granted;
  if (cached) {
    logger_->Debug("cached authorization for token %s to %s", token.c_str(), path.c_str());
  }
  logger_->Debug("authorize for %s to %s %s", token.c_str(), path.c_str(),
                 granted ? "successful" : "failed");
  return granted;
}

bool VigilaClient::Impl::ReportProtection(const std::string& path, bool is_protected, bool cached) {
  if (cached) logger_->Debug("cached is_protected for %s", path.c_str());
  logger_->Debug("is_protected for %s is %s", path.c_str(), Text(is_protected));
  return is_protected;
}

// The server is there and will not have this client, which someone must mend: a bound, a role, a
// version. Said behind the line that every call without an answer leaves.
void VigilaClient::Impl::ReportRefusal(const char* cause) {
  ReportFailure();
  if (refusals_.IsDue(cause)) logger_->Error("vigila refuses this process: %s", cause);
}

bool VigilaClient::Impl::ReportLogon(const std::string& username, const std::string& token,
                                     bool success) {
  if (success) {
    logger_->Debug("authenticate for %s successful, token = %s", username.c_str(), token.c_str());
  } else {
    logger_->Debug("authenticate for %s failed", username.c_str());
  }
  return success;
}

}  // namespace vigila::client
