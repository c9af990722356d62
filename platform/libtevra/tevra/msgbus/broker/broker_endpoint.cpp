#include "tevra/msgbus/broker/broker_endpoint.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "tevra/core/logger.h"
#include "tevra/msgbus/bus_error.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

constexpr const char* kBroker = "org.freedesktop.DBus";
constexpr const char* kBrokerPath = "/org/freedesktop/DBus";
constexpr const char* kOwnerChangedRule =
    "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
    "member='NameOwnerChanged',";
constexpr std::chrono::milliseconds kReconnectPause{100};
constexpr size_t kMaxCallers = 4096;
constexpr size_t kMaxWaitingOfOneCaller = 32;

core::Logger* Log() {
  static core::Logger* const logger = core::Logger::GetLogger("MsgBus");
  return logger;
}

// The broker took longer than it may. It may still do what it was asked, so asking again is right.
class BrokerHangs final : public osa::Exception {
 public:
  BrokerHangs() : Exception("message bus: the broker does not answer") {}
};

// Reads one entry of GetConnectionCredentials' answer, a{sv}.
int ReadCredential(sd_bus_message* answer, Credentials* credentials, bool* has_uid) {
  const char* key = nullptr;
  int result = sd_bus_message_read_basic(answer, 's', &key);
  if (result < 0) return result;
  if (strcmp(key, "UnixUserID") == 0) {
    *has_uid = true;
    return sd_bus_message_read(answer, "v", "u", &credentials->uid);
  }
  if (strcmp(key, "ProcessID") == 0) {
    uint32_t pid = 0;
    result = sd_bus_message_read(answer, "v", "u", &pid);
    credentials->pid = static_cast<pid_t>(pid);
    return result;
  }
  if (strcmp(key, "UnixGroupIDs") != 0) return sd_bus_message_skip(answer, "v");
  const void* groups = nullptr;
  size_t size = 0;
  result = sd_bus_message_enter_container(answer, 'v', "au");
  if (result >= 0) result = sd_bus_message_read_array(answer, 'u', &groups, &size);
  if (result < 0) return result;
  const auto* first = static_cast<const uint32_t*>(groups);
  credentials->groups.assign(first, first + size / sizeof(uint32_t));
  return sd_bus_message_exit_container(answer);
}

std::string OrEmpty(const char* text) {
  return text != nullptr ? text : "";
}

}  // namespace

class BrokerEndpoint::Request final : public RequestScheduler::Request {
 public:
  Request(BrokerEndpoint& endpoint, sd_bus_message* call, Credentials caller)
      : endpoint_(endpoint), call_(sd_bus_message_ref(call)), caller_(std::move(caller)) {}
  void Run() override { endpoint_.Answer(call_.get(), caller_); }

 private:
  BrokerEndpoint& endpoint_;
  const MessagePtr call_;
  const Credentials caller_;
};

BrokerEndpoint::BrokerEndpoint(const BusConfig& config, DispatchThread& dispatch,
                               RequestDispatcher* requests, Subscribers& subscribers)
    : config_(config),
      dispatch_(dispatch),
      requests_(requests),
      subscribers_(subscribers),
      objects_(requests) {
  dispatch_.AfterEvents([this] { return scheduler_.RunSome(); });
}

void BrokerEndpoint::Serve(const std::string& name) {
  if (Serves(name)) return;
  Connect();
  Own(name);
  names_.insert(name);
}

void BrokerEndpoint::StopServing(const std::string& name) {
  if (names_.erase(name) > 0 && link_) sd_bus_release_name(link_->bus(), name.c_str());
  DrainLater();
}

void BrokerEndpoint::Broadcast(const MsgBusMsg& message) {
  if (!link_ || names_.empty()) return;
  const MessagePtr wire = MessageCodec::EncodeSignal(link_->bus(), message);
  link_->Send(wire.get(), message.Size());
  DrainLater();
}

void BrokerEndpoint::Watch(const std::string& name) {
  if (!watched_.emplace(name, Watched()).second) return;
  if (link_) {
    TryToListen(name);
  } else {
    Reconnect();
  }
}

void BrokerEndpoint::Connect() {
  if (link_) return;
  auto link = std::make_unique<BusLink>(config_.address);
  sd_bus_set_method_call_timeout(link->bus(),
                                 static_cast<uint64_t>(config_.timeout.count()) * 1000);
  link_ = std::move(link);
  try {
    // Callers that have gone need not be remembered.
    AddMatch(std::string(kOwnerChangedRule) + "arg2=''");
    events_ = link_->Events();
    watch_ = dispatch_.Watch(link_->fd(), events_, [this](uint32_t) { OnReady(); });
  } catch (...) {
    link_.reset();
    throw;
  }
  DrainLater();
}

void BrokerEndpoint::Reconnect() {
  try {
    Connect();
    for (const std::string& name : names_) Own(name);
    complaints_.clear();
    for (auto& [name, watched] : watched_) TryToListen(name);
  } catch (const std::exception& failure) {
    Complain(failure.what());
    Lose();
  }
}

// Each is said once: it is tried again many times a second.
void BrokerEndpoint::Complain(const std::string& complaint) {
  if (complaints_.insert(complaint).second) Log()->Warning("%s", complaint.c_str());
}

void BrokerEndpoint::ReconnectLater() {
  if (timer_ != 0 || (names_.empty() && watched_.empty())) return;
  timer_ = dispatch_.After(kReconnectPause, [this] {
    timer_ = 0;
    if (!link_) Reconnect();
  });
}

void BrokerEndpoint::Lose() {
  if (watch_ != 0) dispatch_.Remove(std::exchange(watch_, 0));
  link_.reset();
  callers_.clear();
  for (auto& [name, watched] : watched_) {
    watched.owner.clear();
    subscribers_.Vanished(name);
  }
  ReconnectLater();
}

void BrokerEndpoint::Own(const std::string& name) {
  const int result = sd_bus_request_name(link_->bus(), name.c_str(), 0);
  DrainLater();
  if (result >= 0 || result == -EALREADY) return;
  if (result == -EEXIST) {
    throw osa::Exception("message bus: %s is served by somebody else", name.c_str());
  }
  throw osa::Exception("message bus: cannot serve %s: %s", name.c_str(), strerror(-result));
}

// One watch that fails costs neither the others nor the names that are served here.
void BrokerEndpoint::TryToListen(const std::string& name) {
  try {
    Listen(name);
  } catch (const BrokerHangs& hang) {
    Complain(hang.what());
    ListenLater(name);
  } catch (const osa::Exception& refusal) {
    Complain(name + " is not watched: " + refusal.what());
  }
}

void BrokerEndpoint::ListenLater(const std::string& name) {
  if (!waiting_.insert(name).second) return;
  dispatch_.After(kReconnectPause, [this, name] {
    waiting_.erase(name);
    if (link_) TryToListen(name);
  });
}

void BrokerEndpoint::Listen(const std::string& name) {
  AddMatch(std::string(kOwnerChangedRule) + "arg0='" + name + "'");
  AddMatch("type='signal',sender='" + name + "'");
  const MessagePtr answer = Ask("GetNameOwner", name);
  const char* owner = nullptr;
  if (answer && sd_bus_message_read_basic(answer.get(), 's', &owner) > 0) Greet(name, owner);
}

// What arrived while a question to the broker was under way waits inside sd-bus, where no poll
// shows it.
void BrokerEndpoint::DrainLater() {
  if (std::exchange(drain_posted_, true)) return;
  dispatch_.Post([this] {
    drain_posted_ = false;
    if (link_) OnReady();
  });
}

void BrokerEndpoint::OnReady() {
  if (!link_->IsIntact()) return Lose();
  do {
    if (link_->Advance() == BusLink::Progress::kDead) return Lose();
    if (const MessagePtr message = link_->TakeIncoming()) OnMessage(message.get());
  } while (link_->HasQueuedInput());
  if (link_->QueuedBytes() > config_.max_output_bytes) return Lose();
  const uint32_t events = link_->Events();
  if (events != events_) dispatch_.Modify(watch_, events_ = events);
}

void BrokerEndpoint::OnMessage(sd_bus_message* message) {
  uint8_t type = 0;
  sd_bus_message_get_type(message, &type);
  if (type == SD_BUS_MESSAGE_METHOD_CALL) OnCall(message);
  if (type == SD_BUS_MESSAGE_SIGNAL) OnSignal(message);
}

void BrokerEndpoint::OnCall(sd_bus_message* call) {
  const char* sender = sd_bus_message_get_sender(call);
  if (names_.empty() || sender == nullptr) {
    // A caller that remembers us from before must look for our successor.
    sd_bus_reply_method_errorf(call, SD_BUS_ERROR_SERVICE_UNKNOWN, "not serving");
    return;
  }
  const Caller* caller = nullptr;
  try {
    caller = CallerNamed(sender);
  } catch (const BrokerHangs& hang) {
    Complain(hang.what());
  }
  if (caller == nullptr) {
    sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED, "unknown caller");
    return;
  }
  if (caller->turns->Waiting() >= kMaxWaitingOfOneCaller) {
    sd_bus_reply_method_errorf(call, SD_BUS_ERROR_LIMITS_EXCEEDED, "too many calls of yours wait");
    return;
  }
  const bool is_dear = requests_->IsDear(OrEmpty(sd_bus_message_get_interface(call)),
                                         OrEmpty(sd_bus_message_get_member(call)));
  scheduler_.Add(caller->turns, is_dear ? RequestScheduler::kDear : RequestScheduler::kCheap,
                 std::make_shared<Request>(*this, call, caller->credentials));
}

void BrokerEndpoint::Answer(sd_bus_message* call, const Credentials& caller) {
  // Without the connection over which it came there is no way back for the answer.
  if (!link_ || sd_bus_message_get_bus(call) != link_->bus()) return;
  if (names_.empty()) {
    sd_bus_reply_method_errorf(call, SD_BUS_ERROR_SERVICE_UNKNOWN, "not serving");
    return;
  }
  const ServedObjects::Reply standard = objects_.Answer(call, caller);
  if (!standard.message) return RunHandler(call, caller);
  if (sd_bus_message_get_expect_reply(call) <= 0) return;
  link_->Send(standard.message.get(), standard.size);
  DrainLater();
}

void BrokerEndpoint::RunHandler(sd_bus_message* call, const Credentials& caller) {
  const char* header = sd_bus_message_get_destination(call);
  const std::string destination =
      header != nullptr && names_.contains(header) ? header : *names_.begin();
  MsgBusMsg request = MessageCodec::NamesOf(call, destination);
  request.SetSender(caller);
  const MsgBusMsg answer = AnswerOf(call, request);
  if (sd_bus_message_get_expect_reply(call) <= 0) return;
  const MessagePtr wire = MessageCodec::EncodeAnswer(call, answer);
  link_->Send(wire.get(), answer.Size());
  DrainLater();
}

MsgBusMsg BrokerEndpoint::AnswerOf(sd_bus_message* call, MsgBusMsg& request) {
  const bool is_well_formed = MessageCodec::DecodeBody(call, config_.max_message_bytes, &request);
  const MsgBusMsg answer =
      is_well_formed ? requests_->Answer(request, sd_bus_message_get_expect_reply(call) > 0)
                     : MsgBusMsg::ErrorTo(request, BusError::kInvalidArgs, "malformed arguments");
  if (!answer.IsError() || answer.ErrorName() != BusError::kInvalidArgs) return answer;
  // Handlers name types by the letters of a message; who calls over D-Bus knows D-Bus's.
  const std::string wrong_types = objects_.WrongTypes(call);
  return wrong_types.empty() ? answer
                             : MsgBusMsg::ErrorTo(request, BusError::kInvalidArgs, wrong_types);
}

void BrokerEndpoint::OnSignal(sd_bus_message* signal) {
  const char* sender = sd_bus_message_get_sender(signal);
  if (sender == nullptr) return;
  if (strcmp(sender, kBroker) == 0) {
    if (sd_bus_message_is_signal(signal, kBroker, "NameOwnerChanged") > 0) OnOwnerChanged(signal);
    return;
  }
  for (const auto& [name, watched] : watched_) {
    if (watched.owner != sender) continue;
    MsgBusMsg message = MessageCodec::NamesOf(signal, "");
    message.SetSender(watched.server);
    if (MessageCodec::DecodeBody(signal, config_.max_message_bytes, &message)) {
      subscribers_.Signal(name, message);
    }
    return;
  }
}

void BrokerEndpoint::OnOwnerChanged(sd_bus_message* signal) {
  const char* name = nullptr;
  const char* before = nullptr;
  const char* after = nullptr;
  if (sd_bus_message_read(signal, "sss", &name, &before, &after) < 0) return;
  if (*after == '\0') callers_.erase(name);
  const auto watched = watched_.find(name);
  if (watched == watched_.end() || watched->second.owner == after) return;
  if (!watched->second.owner.empty()) {
    watched->second.owner.clear();
    subscribers_.Vanished(name);
  }
  if (*after == '\0') return;
  try {
    Greet(name, after);
  } catch (const BrokerHangs& hang) {
    Complain(hang.what());
    ListenLater(name);
  }
}

void BrokerEndpoint::Greet(const std::string& name, const std::string& owner) {
  const Caller* const server = CallerNamed(owner);
  if (server == nullptr) return;
  const Credentials& credentials = server->credentials;
  if (!config_.Trusts(credentials.uid)) {
    Log()->Warning("%s refused: it is served by user %u", name.c_str(), credentials.uid);
    return;
  }
  Watched& watched = watched_[name];
  if (watched.owner == owner) return;
  watched = {owner, credentials};
  subscribers_.Appeared(name);
}

MessagePtr BrokerEndpoint::Ask(const char* member, const std::string& argument) {
  sd_bus_message* answer = nullptr;
  const int result = sd_bus_call_method(link_->bus(), kBroker, kBrokerPath, kBroker, member,
                                        nullptr, &answer, "s", argument.c_str());
  DrainLater();
  if (result == -ETIMEDOUT) throw BrokerHangs();
  return MessagePtr(result < 0 ? nullptr : answer);
}

void BrokerEndpoint::AddMatch(const std::string& rule) {
  if (!Ask("AddMatch", rule)) throw osa::Exception("message bus: the broker refuses a match rule");
}

const BrokerEndpoint::Caller* BrokerEndpoint::CallerNamed(const std::string& unique_name) {
  const auto known = callers_.find(unique_name);
  if (known != callers_.end()) return &known->second;
  const std::optional<Credentials> asked = AskCredentials(unique_name);
  if (!asked) return nullptr;
  if (callers_.size() >= kMaxCallers) callers_.clear();
  return &callers_.emplace(unique_name, Caller{*asked, scheduler_.CallerOf(*asked)}).first->second;
}

std::optional<Credentials> BrokerEndpoint::AskCredentials(const std::string& unique_name) {
  const MessagePtr answer = Ask("GetConnectionCredentials", unique_name);
  if (!answer || sd_bus_message_enter_container(answer.get(), 'a', "{sv}") < 0) return std::nullopt;
  Credentials credentials{};
  bool has_uid = false;
  int result = 0;
  while ((result = sd_bus_message_enter_container(answer.get(), 'e', "sv")) > 0) {
    result = ReadCredential(answer.get(), &credentials, &has_uid);
    if (result < 0 || sd_bus_message_exit_container(answer.get()) < 0) return std::nullopt;
  }
  if (result < 0 || !has_uid) return std::nullopt;
  return credentials;
}

}  // namespace tevra::msgbus
