#ifndef BENCHMARKS_SUPPORT_PLAIN_CALL_SERVER_H_
#define BENCHMARKS_SUPPORT_PLAIN_CALL_SERVER_H_

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "support/temp_dir.h"

namespace benchmarks {

// A process that answers calls through nothing but sd-bus, without looking at what they say: empty
// ones with empty replies, what a call on the same transport costs at least, and those with two
// texts with a boolean, what any call of authorize's shape does. Either peer to peer on a socket of
// its own, or under a name on a broker. Killed at destruction. Start it before the process has
// threads.
class PlainCallServer {
 public:
  static constexpr const char* kName = "benchmarks.PlainCallServer";

  // `broker` is a D-Bus address; empty for peer to peer.
  explicit PlainCallServer(const std::string& broker) : broker_(broker) {
    if (broker_.empty()) address_ = "unix:path=" + dir_.File("socket");
    int ready[2];
    if (pipe(ready) != 0) throw std::runtime_error("pipe");
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      Serve(ready[1]);
      _exit(1);
    }
    close(ready[1]);
    char byte = 0;
    const bool served = read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    if (!served) throw std::runtime_error("the plain-call server did not start");
  }
  ~PlainCallServer() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  PlainCallServer(const PlainCallServer&) = delete;
  PlainCallServer& operator=(const PlainCallServer&) = delete;

  pid_t Pid() const { return pid_; }

  // A connection of one client thread.
  sd_bus* Connect() const {
    sd_bus* bus = nullptr;
    sd_bus_new(&bus);
    sd_bus_set_address(bus, broker_.empty() ? address_.c_str() : broker_.c_str());
    if (!broker_.empty()) sd_bus_set_bus_client(bus, 1);
    if (sd_bus_start(bus) < 0) throw std::runtime_error("connect");
    return bus;
  }
  bool CallEmpty(sd_bus* bus) const {
    sd_bus_message* reply = nullptr;
    const int result = sd_bus_call_method(bus, broker_.empty() ? nullptr : kName, "/", kName,
                                          "Empty", nullptr, &reply, "");
    sd_bus_message_unref(reply);
    return result >= 0;
  }
  bool CallWithTexts(sd_bus* bus, const std::string& first, const std::string& second) const {
    sd_bus_message* call = nullptr;
    sd_bus_message* reply = nullptr;
    int granted = 0;
    const bool answered =
        sd_bus_message_new_method_call(bus, &call, broker_.empty() ? nullptr : kName, "/", kName,
                                       "Texts") >= 0 &&
        sd_bus_message_append_array(call, 'y', first.data(), first.size()) >= 0 &&
        sd_bus_message_append_array(call, 'y', second.data(), second.size()) >= 0 &&
        sd_bus_call(bus, call, 0, nullptr, &reply) >= 0 &&
        sd_bus_message_read_basic(reply, 'b', &granted) > 0;
    sd_bus_message_unref(call);
    sd_bus_message_unref(reply);
    return answered && granted != 0;
  }

 private:
  static int Answer(sd_bus_message* message, void*, sd_bus_error*) {
    if (sd_bus_message_is_empty(message) > 0) return sd_bus_reply_method_return(message, "");
    const void* bytes = nullptr;
    size_t size = 0;
    for (int text = 0; text < 2; ++text) {
      const int read = sd_bus_message_read_array(message, 'y', &bytes, &size);
      if (read < 0) return read;
    }
    return sd_bus_reply_method_return(message, "b", 1);
  }

  void Serve(int ready) const {
    sd_event* event = nullptr;
    sd_event_new(&event);
    const bool started = broker_.empty() ? Listen(event) : Join(event);
    if (started && write(ready, "r", 1) == 1) sd_event_loop(event);
  }
  bool Listen(sd_event* event) const {
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    dir_.File("socket").copy(address.sun_path, sizeof(address.sun_path) - 1);
    return bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
           listen(listener, 16) == 0 &&
           sd_event_add_io(event, nullptr, listener, EPOLLIN, Accept, event) >= 0;
  }
  static int Accept(sd_event_source*, int listener, uint32_t, void* event) {
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    sd_bus* bus = nullptr;
    sd_id128_t id = {};
    sd_id128_randomize(&id);
    sd_bus_new(&bus);
    sd_bus_set_fd(bus, fd, fd);
    sd_bus_set_server(bus, 1, id);
    sd_bus_set_anonymous(bus, 1);
    sd_bus_add_object(bus, nullptr, "/", Answer, nullptr);
    sd_bus_start(bus);
    sd_bus_attach_event(bus, static_cast<sd_event*>(event), 0);
    return 0;
  }
  bool Join(sd_event* event) const {
    sd_bus* bus = nullptr;
    sd_bus_new(&bus);
    sd_bus_set_address(bus, broker_.c_str());
    sd_bus_set_bus_client(bus, 1);
    sd_bus_add_object(bus, nullptr, "/", Answer, nullptr);
    return sd_bus_start(bus) >= 0 && sd_bus_request_name(bus, kName, 0) >= 0 &&
           sd_bus_attach_event(bus, event, 0) >= 0;
  }

  const support::TempDir dir_;
  const std::string broker_;
  std::string address_;
  pid_t pid_ = -1;
};

}  // namespace benchmarks

#endif  // BENCHMARKS_SUPPORT_PLAIN_CALL_SERVER_H_
