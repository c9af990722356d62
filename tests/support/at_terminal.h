#ifndef SUPPORT_AT_TERMINAL_H_
#define SUPPORT_AT_TERMINAL_H_

#include <gtest/gtest.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <utmp.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/daemon_process.h"

namespace support {

// vigilactl at a terminal of its own, with the test at the keyboard.
class AtTerminal {
 public:
  AtTerminal(const DaemonProcess& device, const std::vector<std::string>& arguments,
             unsigned short columns = 80) {
    std::vector<std::string> argv = {VIGILACTL_PATH, "--config", device.ConfigFile()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    for (std::string& argument : argv) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    int master = -1, slave = -1;
    const winsize size = {24, columns, 0, 0};
    if (openpty(&master, &slave, nullptr, nullptr, &size) != 0) abort();
    master_ = Fd(master);
    slave_ = Fd(slave);  // keeps the terminal alive after the program
    pid_ = fork();
    if (pid_ == 0) {
      setenv("VIGILA_TOKEN", "", 1);
      login_tty(slave);
      execv(pointers[0], pointers.data());
      _exit(support::Program::kCannotExec);
    }
  }
  ~AtTerminal() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  AtTerminal(const AtTerminal&) = delete;
  AtTerminal& operator=(const AtTerminal&) = delete;

  // Reads the screen until it shows `text`; false after thirty seconds.
  bool Shows(const std::string& text) {
    const auto until = Clock::now() + std::chrono::seconds(30);
    while (screen_.find(text, seen_) == std::string::npos) {
      if (Clock::now() > until) return false;
      pollfd wait = {master_.Get(), POLLIN, 0};
      if (poll(&wait, 1, 200) != 1) continue;
      if (!ReadScreen()) return false;
    }
    seen_ = screen_.find(text, seen_) + text.size();
    return true;
  }
  void Type(const std::string& keys) {
    ASSERT_EQ(write(master_.Get(), keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }
  // The status of waitpid.
  int Wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
  }
  // What the screen shows when the program has ended, lines ending in "\n".
  std::string FinalScreen() {
    slave_.Close();  // now the program's end is the end of what can be read
    while (ReadScreen()) {
    }
    Wait();
    std::string text = screen_;
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    return text;
  }
  bool Echoes() const {
    termios settings = {};
    tcgetattr(slave_.Get(), &settings);
    return (settings.c_lflag & ECHO) != 0;
  }
  pid_t Pid() const { return pid_; }
  const std::string& Screen() const { return screen_; }

 private:
  bool ReadScreen() {
    char buffer[4096];
    const ssize_t n = read(master_.Get(), buffer, sizeof(buffer));
    if (n > 0) screen_.append(buffer, static_cast<size_t>(n));
    return n > 0;
  }

  Fd master_, slave_;
  pid_t pid_ = -1;
  std::string screen_;
  size_t seen_ = 0;
};

}  // namespace support

#endif  // SUPPORT_AT_TERMINAL_H_
