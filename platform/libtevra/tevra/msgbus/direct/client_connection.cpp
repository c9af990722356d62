#include "tevra/msgbus/direct/client_connection.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>

#include "tevra/msgbus/direct/destination_socket.h"
#include "tevra/msgbus/direct/peer_credentials.h"
#include "tevra/msgbus/wire/frame_writer.h"
#include "tevra/msgbus/wire/handshake.h"

namespace tevra::msgbus {
namespace {

using std::chrono::milliseconds;

// Whole milliseconds, so that calls with the same time-out do not set it anew each time.
milliseconds TimeLeft(Deadline deadline) {
  return std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
}

bool IsTimeout(int error) {
  return error == EAGAIN || error == EWOULDBLOCK;
}

}  // namespace

ClientConnection::ClientConnection(const BusConfig& config, const std::string& destination,
                                   Deadline deadline)
    : destination_(destination), reader_(config.max_message_bytes) {
  Connect(config, deadline);
  SayHello(deadline);
}

void ClientConnection::Connect(const BusConfig& config, Deadline deadline) {
  const sockaddr_un address =
      DestinationSocket::AddressOf(DestinationSocket::PathOf(config.runtime_dir, destination_));
  socket_ = OwnedSocket(osa::Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)));
  // The send time-out is what bounds a connect that waits for room in the server's backlog, and a
  // signal may end the wait before its time.
  bool connected = false;
  while (socket_ &&
         SetTimeout(std::max(deadline, std::chrono::steady_clock::now() + milliseconds(1)))) {
    connected =
        connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    if (connected || errno != EINTR || TimeLeft(deadline).count() <= 0) break;
  }
  if (!connected) {
    throw osa::Exception("message bus: no server for %s: %s", destination_.c_str(),
                         strerror(errno));
  }
  const uid_t uid = PeerCredentials(socket_.get()).uid;
  if (!config.Trusts(uid)) {
    throw osa::Exception("message bus: %s refused: it is served by user %u", destination_.c_str(),
                         uid);
  }
}

void ClientConnection::SayHello(Deadline deadline) {
  std::optional<wire::Frame> frame;
  Outcome outcome = Send(wire::Hello(0), {}, deadline);
  // A server that refuses does not wait for the hello, so its word may be there all the same.
  if (outcome != Outcome::kTimedOut) outcome = Receive(deadline, &frame);
  if (outcome == Outcome::kTimedOut) {
    throw osa::Exception("message bus: no answer from %s in time", destination_.c_str());
  }
  if (!frame) throw osa::Exception("message bus: connection to %s lost", destination_.c_str());
  const wire::Welcome welcome = wire::ReadWelcome(*frame);
  if (!welcome.error_name.empty()) {
    throw ConnectionRefused(destination_, welcome.error_name, welcome.error_text);
  }
  instance_ = welcome.instance;
}

Outcome ClientConnection::Call(const MsgBusMsg& message, Deadline deadline,
                               std::unique_ptr<MsgBusMsg>* answer) {
  const uint32_t serial = ++serial_;
  const Outcome sent =
      Send({wire::Kind::kCall, 0, serial, message.GetInterface(), message.GetName(), {}},
           message.Body(), deadline);
  if (sent != Outcome::kDone) return sent;
  for (;;) {
    std::optional<wire::Frame> frame;
    const Outcome received = Receive(deadline, &frame);
    if (received != Outcome::kDone) return received;
    if (frame->serial != serial) continue;
    if (frame->kind == wire::Kind::kError) {
      *answer = std::make_unique<MsgBusMsg>(
          MsgBusMsg::ErrorTo(message, std::string(frame->member), wire::ErrorText(*frame)));
    } else if (frame->kind == wire::Kind::kReply) {
      *answer = std::make_unique<MsgBusMsg>(MsgBusMsg::ReplyTo(message));
      if (!wire::ReadValues(frame->values, answer->get())) {
        throw osa::Exception("message bus: malformed reply from %s", destination_.c_str());
      }
    } else {
      continue;
    }
    reader_.Wipe();
    (*answer)->SetSerial(serial);
    (*answer)->SetInstance(instance_);
    return Outcome::kDone;
  }
}

Outcome ClientConnection::Post(const MsgBusMsg& message, Deadline deadline) {
  return Send({wire::Kind::kCall,
               wire::kWantsNoReply,
               ++serial_,
               message.GetInterface(),
               message.GetName(),
               {}},
              message.Body(), deadline);
}

Outcome ClientConnection::Send(const wire::Frame& frame,
                               const std::vector<MsgBusMsg::Value>& values, Deadline deadline) {
  if (!socket_.IsIntact()) return Outcome::kNotSent;
  const wire::ScopedFrameWipe wipe(&output_);
  wire::AppendFrame(&output_, frame, values);
  for (size_t sent = 0; sent < output_.size();) {
    if (!SetTimeout(deadline)) return Outcome::kTimedOut;
    const ssize_t count =
        send(socket_.get(), output_.data() + sent, output_.size() - sent, MSG_NOSIGNAL);
    if (count >= 0) {
      sent += static_cast<size_t>(count);
    } else if (IsTimeout(errno)) {
      return Outcome::kTimedOut;
    } else if (errno != EINTR) {
      return sent == 0 ? Outcome::kNotSent : Outcome::kLost;
    }
  }
  return Outcome::kDone;
}

Outcome ClientConnection::Receive(Deadline deadline, std::optional<wire::Frame>* frame) {
  for (;;) {
    std::string_view body;
    const wire::FrameReader::State state = reader_.Next(&body);
    if (state == wire::FrameReader::State::kTooLong) return Outcome::kLost;
    if (state == wire::FrameReader::State::kFrame) {
      *frame = wire::ParseBody(body);
      return *frame ? Outcome::kDone : Outcome::kLost;
    }
    const std::span<char> space = reader_.Space();
    if (!SetTimeout(deadline)) return Outcome::kTimedOut;
    const ssize_t count = recv(socket_.get(), space.data(), space.size(), 0);
    if (count > 0) {
      reader_.Took(static_cast<size_t>(count));
    } else if (count < 0 && IsTimeout(errno)) {
      return Outcome::kTimedOut;
    } else if (count < 0 && errno == ECONNRESET && !reader_.HasMore()) {
      // The kernel says this, and not that the stream has ended, when the peer went and left
      // something unread: the end of our frame at the least, without which it was no call.
      return Outcome::kNotSent;
    } else if (count == 0 || errno != EINTR) {
      return Outcome::kLost;
    }
  }
}

// False when the deadline has passed.
bool ClientConnection::SetTimeout(Deadline deadline) {
  const milliseconds left = TimeLeft(deadline);
  if (left.count() <= 0) return false;
  if (left == timeout_) return true;
  const timeval value{static_cast<time_t>(left.count() / 1000),
                      static_cast<suseconds_t>(left.count() % 1000 * 1000)};
  setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &value, sizeof value);
  setsockopt(socket_.get(), SOL_SOCKET, SO_SNDTIMEO, &value, sizeof value);
  timeout_ = left;
  return true;
}

}  // namespace tevra::msgbus
