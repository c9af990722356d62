#ifndef SUPPORT_DAEMON_PROCESS_H_
#define SUPPORT_DAEMON_PROCESS_H_

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/program.h"
#include "support/temp_dir.h"

namespace support {

// A vigilad of the test's own: settings, key, bus sockets and notify socket live in a new
// directory. The daemon is started and stopped as often as the test likes; the directory stays
// until the end.
class DaemonProcess {
 public:
  enum class Start { kReady, kEnded, kLate };

  enum class Key { kCopied, kOwn };

  explicit DaemonProcess(Key key = Key::kCopied) {
    signal(SIGPIPE, SIG_IGN);
    chmod(dir_.Path().c_str(), 0755);  // callers of other users read the configuration here
    std::filesystem::create_directory(SettingsDir());
    chmod(SettingsDir().c_str(), 0700);
    std::filesystem::create_directory(RuntimeDir());
    Set("Settings", "directory", SettingsDir());
    Set("MsgBus", "runtime_dir", RuntimeDir());
    OpenNotifySocket();
    if (key == Key::kCopied && !SharedKey().empty()) {
      // As a credential: a key file of the daemon's own says that there was a store.
      std::filesystem::create_directory(CredentialsDir());
      dir_.Write("credentials/vigila.key", SharedKey());
      chmod(KeyFile().c_str(), 0600);
    }
  }
  ~DaemonProcess() { StopNow(); }
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  // One configuration value; holds from the next start on.
  void Set(const std::string& section, const std::string& key, const std::string& value) {
    config_[section][key] = value;
    std::ofstream file(ConfigFile());
    for (const auto& [name, keys] : config_) {
      file << '[' << name << "]\n";
      for (const auto& [k, v] : keys) file << k << " = " << v << '\n';
    }
  }

  // Starts the daemon without waiting for anything.
  void Launch(ProgramOptions options = {}) {
    options.environment["NOTIFY_SOCKET"] = dir_.File("notify");
    options.environment.emplace("TEVRA_LOG_LEVEL", "notice");
    options.environment.emplace("CREDENTIALS_DIRECTORY", CredentialsDir());
    options.deadline = std::chrono::seconds(120);
    options.error_file = dir_.File("log");
    unlink(options.error_file.c_str());
    EmptyNotifySocket();
    program_ = std::make_unique<Program>(
        std::vector<std::string>{VIGILAD_PATH, "--config", ConfigFile()}, options);
  }
  // Waits until the daemon says READY=1, ends, or 30 s have passed.
  Start AwaitReady() {
    const Start start = AwaitWord("READY=1");
    if (start == Start::kReady && SharedKey().empty()) {
      SharedKey() = dir_.Read("settings/vigila.key");
    }
    return start;
  }
  // The same for anything that it may say to the service manager.
  Start AwaitWord(const std::string& word) {
    const auto until = Clock::now() + std::chrono::seconds(30);
    while (Clock::now() < until) {
      pollfd waits[] = {{notify_.Get(), POLLIN, 0}, {program_->PidFd(), POLLIN, 0}};
      poll(waits, 2, 1000);
      char text[256];
      const ssize_t n = recv(notify_.Get(), text, sizeof(text), MSG_DONTWAIT);
      if (n > 0 && std::string(text, static_cast<size_t>(n)).find(word) != std::string::npos) {
        return Start::kReady;
      }
      if ((waits[1].revents & POLLIN) != 0 && n <= 0) return Start::kEnded;
    }
    return Start::kLate;
  }
  Start LaunchAndAwaitReady(const ProgramOptions& options = {}) {
    Launch(options);
    return AwaitReady();
  }
  // Sends the signal and waits for the end.
  Finished Stop(int signal_number = SIGTERM) {
    program_->Signal(signal_number);
    return Finish();
  }
  Finished Finish() {
    Finished end = program_->Finish();
    end.err = Log();
    program_.reset();
    return end;
  }
  void StopNow() { program_.reset(); }
  Program& Running() { return *program_; }

  // Runs vigilactl against this device.
  Finished Ctl(std::vector<std::string> arguments, ProgramOptions options = {}) const {
    arguments.insert(arguments.begin(), {VIGILACTL_PATH, "--config", ConfigFile()});
    options.environment.emplace("VIGILA_TOKEN", "");
    return RunProgram(arguments, options);
  }
  Finished CtlWithSecret(const std::string& secret, std::vector<std::string> arguments) const {
    arguments.push_back("--password-stdin");
    ProgramOptions options;
    options.input = secret;
    return Ctl(std::move(arguments), options);
  }

  // What the daemon has said since its last start.
  std::string Log() const { return dir_.Read("log"); }

  const TempDir& Dir() const { return dir_; }
  std::string ConfigFile() const { return dir_.File("platform.ini"); }
  std::string SettingsDir() const { return dir_.File("settings"); }
  std::string RuntimeDir() const { return dir_.File("run"); }
  // The one that the daemon reads, or would make.
  std::string KeyFile() const {
    const std::string credential = CredentialsDir() + "/vigila.key";
    return std::filesystem::exists(credential) ? credential : SettingsDir() + "/vigila.key";
  }
  std::string Database() const { return SettingsDir() + "/vigila.db"; }
  std::string ServiceSocket() const { return RuntimeDir() + "/tevra.SecurityProvider"; }

 private:
  std::string CredentialsDir() const { return dir_.File("credentials"); }
  static std::string& SharedKey() {
    static std::string key;
    return key;
  }
  void OpenNotifySocket() {
    notify_ = Fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    dir_.File("notify").copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (bind(notify_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
      throw std::runtime_error("notify socket");
    }
  }
  void EmptyNotifySocket() const {
    char text[256];
    while (recv(notify_.Get(), text, sizeof(text), MSG_DONTWAIT) > 0) {
    }
  }

  const TempDir dir_;
  std::map<std::string, std::map<std::string, std::string>> config_;
  Fd notify_;
  std::unique_ptr<Program> program_;
};

}  // namespace support

#endif  // SUPPORT_DAEMON_PROCESS_H_
