#ifndef SUPPORT_GATEWAY_PROCESS_H_
#define SUPPORT_GATEWAY_PROCESS_H_

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/device_with_accounts.h"
#include "support/program.h"
#include "support/temp_dir.h"

namespace support {

// A vigila-gateway in front of a test's daemon, at ports of its own choice.
class GatewayProcess {
 public:
  explicit GatewayProcess(const std::string& config_file) : config_file_(config_file) {
    if (mkfifo(dir_.File("out").c_str(), 0600) != 0) throw std::runtime_error("mkfifo");
  }
  ~GatewayProcess() { program_.reset(); }

  // True when it says where it serves.
  bool Start(const std::vector<std::string>& options = {}) {
    // Its output goes to a pipe with a name, so that it can be read while it runs.
    std::vector<std::string> argv = {"/bin/sh",
                                     "-c",
                                     "exec \"$@\" >\"$0\"",
                                     dir_.File("out"),
                                     VIGILA_GATEWAY_PATH,
                                     "--config",
                                     config_file_,
                                     "--metrics-port",
                                     "0"};
    argv.insert(argv.end(), options.begin(), options.end());
    ProgramOptions program;
    program.error_file = dir_.File("log");
    program.deadline = std::chrono::seconds(240);
    const Fd out(open(dir_.File("out").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    // Holds the pipe open until the program has opened it.
    Fd holder(open(dir_.File("out").c_str(), O_WRONLY | O_CLOEXEC));
    program_ = std::make_unique<Program>(argv, program);
    ReadAddresses(out);
    return !url_.empty() && !metrics_url_.empty();
  }
  Finished Stop(int signal_number = SIGTERM) {
    program_->Signal(signal_number);
    Finished end = program_->Finish();
    program_.reset();
    return end;
  }

  // "http://127.0.0.1:12345"
  const std::string& Url() const { return url_; }
  const std::string& MetricsUrl() const { return metrics_url_; }
  std::string HostAndPort() const { return url_.substr(url_.find("//") + 2); }
  std::string Log() const { return dir_.Read("log"); }
  const TempDir& Dir() const { return dir_; }

 private:
  void ReadAddresses(const Fd& out) {
    std::string text;
    const auto until = Clock::now() + std::chrono::seconds(60);
    while (Clock::now() < until && text.find("/metrics\n") == std::string::npos) {
      pollfd waits[] = {{out.Get(), POLLIN, 0}, {program_->PidFd(), POLLIN, 0}};
      poll(waits, 2, 1000);
      char bytes[1024];
      const ssize_t n = read(out.Get(), bytes, sizeof(bytes));
      if (n > 0) text.append(bytes, static_cast<size_t>(n));
      if (n <= 0 && (waits[1].revents & POLLIN) != 0) return;
    }
    url_ = Between(text, "Serving ", "\n");
    metrics_url_ = Between(text, "Counters at ", "\n");
  }
  static std::string Between(const std::string& text, const std::string& start, const char* end) {
    const size_t from = text.find(start);
    if (from == std::string::npos) return "";
    return text.substr(from + start.size(), text.find(end, from) - from - start.size());
  }

  const std::string config_file_;
  const TempDir dir_;
  std::string url_;
  std::string metrics_url_;
  std::unique_ptr<Program> program_;
};

// A device with two accounts, and a gateway in front of it.
class GatewayFixture : public DeviceWithAccounts {
 public:
  bool Start(const std::vector<std::string>& options = {}) {
    return DeviceWithAccounts::Start() && gateway.Start(options);
  }

  GatewayProcess gateway{device.ConfigFile()};
};

}  // namespace support

#endif  // SUPPORT_GATEWAY_PROCESS_H_
