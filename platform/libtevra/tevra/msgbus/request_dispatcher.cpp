#include "tevra/msgbus/request_dispatcher.h"

#include <utility>

#include "tevra/core/logger.h"
#include "tevra/core/utf8.h"
#include "tevra/msgbus/bus_error.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

constexpr size_t kMaxErrorText = 900;

core::Logger* Log() {
  static core::Logger* const logger = core::Logger::GetLogger("MsgBus");
  return logger;
}

}  // namespace

RequestDispatcher::RequestDispatcher(IMsgBus& bus, HandlerTable& handlers, size_t max_message_bytes)
    : bus_(bus), handlers_(handlers), max_message_bytes_(max_message_bytes) {}

MsgBusMsg RequestDispatcher::Answer(MsgBusMsg& request, bool expects_reply) {
  MsgBusMsg answer = RunHandler(request);
  if (answer.IsError()) {
    // It is for people to read, and a client takes no message over the bound.
    const std::string text = core::ValidUtf8(answer.ErrorText().substr(0, kMaxErrorText));
    Log()->Information("%s.%s: %s%s", request.GetInterface().c_str(), request.GetName().c_str(),
                       text.c_str(), expects_reply ? "" : " (no reply wanted)");
    return MsgBusMsg::ErrorTo(request, answer.ErrorName(), text);
  }
  // An answer longer than a client may take would cost it the connection.
  if (answer.Size() <= max_message_bytes_) return answer;
  return MsgBusMsg::ErrorTo(request, BusError::kFailed, "the reply is too long");
}

MsgBusMsg RequestDispatcher::RunHandler(MsgBusMsg& request) {
  request.SetRouteTag(++last_tag_);
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    current_tag_ = last_tag_;
    reply_.reset();
  }
  std::optional<MsgBusMsg> failure;
  try {
    if (!handlers_.Run(bus_, request)) {
      failure = MsgBusMsg::ErrorTo(
          request, BusError::kUnknownMethod,
          "no such operation: " + request.GetInterface() + "." + request.GetName());
    }
  } catch (const osa::Exception& thrown) {
    const bool unimplemented = thrown.code() == osa::Exception::kUnimplemented;
    failure = MsgBusMsg::ErrorTo(
        request, unimplemented ? BusError::kNotSupported : BusError::kFailed, thrown.what());
  } catch (const std::exception& thrown) {
    failure = MsgBusMsg::ErrorTo(request, BusError::kFailed, thrown.what());
  } catch (...) {
    failure = MsgBusMsg::ErrorTo(request, BusError::kFailed, "unknown exception");
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  current_tag_ = 0;
  std::optional<MsgBusMsg> reply = std::exchange(reply_, std::nullopt);
  if (failure) return *std::move(failure);
  if (reply) return *std::move(reply);
  return MsgBusMsg::ErrorTo(request, BusError::kFailed, "no reply");
}

void RequestDispatcher::SendReply(const MsgBusMsg& reply) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (current_tag_ == 0 || reply.RouteTag() != current_tag_) return;
  reply_ = reply;
}

void RequestDispatcher::DispatchAppearance(const std::string& destination) {
  watches_.SetEstablished(destination, true);
  DispatchNews(WatchStates::News::kAppeared, destination);
}

void RequestDispatcher::DispatchVanishing(const std::string& destination) {
  watches_.SetEstablished(destination, false);
  DispatchNews(WatchStates::News::kVanished, destination);
}

void RequestDispatcher::DispatchNews(WatchStates::News news, const std::string& destination) {
  if (news == WatchStates::News::kNone) return;
  DispatchLocal(news == WatchStates::News::kAppeared ? IMsgBus::kDestinationAppeared
                                                     : IMsgBus::kDestinationVanished,
                destination);
}

void RequestDispatcher::DispatchLocal(const char* name, const std::string& destination) {
  MsgBusMsg message(IMsgBus::kLocalInterface, name, "");
  message.Append(destination);
  RunListener(message);
}

void RequestDispatcher::RunListener(MsgBusMsg& message) {
  try {
    handlers_.Run(bus_, message);
  } catch (const std::exception& thrown) {
    Log()->Information("%s.%s: %s", message.GetInterface().c_str(), message.GetName().c_str(),
                       thrown.what());
  } catch (...) {
    Log()->Information("%s.%s: unknown exception", message.GetInterface().c_str(),
                       message.GetName().c_str());
  }
}

}  // namespace tevra::msgbus
