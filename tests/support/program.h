#ifndef SUPPORT_PROGRAM_H_
#define SUPPORT_PROGRAM_H_

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace support {

using Clock = std::chrono::steady_clock;

// Whose rights a program runs with; only root may choose.
struct Identity {
  uid_t uid;
  gid_t gid;
  std::vector<gid_t> groups;
};

struct ProgramOptions {
  std::string input;                               // standard input, then end of file
  std::map<std::string, std::string> environment;  // on top of this process's own
  std::optional<Identity> identity;
  bool ignore_file_size_signal = false;  // a write past RLIMIT_FSIZE fails, not kills
  std::string error_file;  // error output goes here: a pipe that no one reads would stop a daemon
  std::chrono::seconds deadline{30};
};

// How a program ended and what it said.
struct Finished {
  int exit_code = -1;  // -1: ended by `signal`, or killed at the deadline
  int signal = 0;
  bool timed_out = false;
  bool core = false;
  std::string out;
  std::string err;
};

class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    Close();
    fd_ = std::exchange(other.fd_, -1);
    return *this;
  }
  ~Fd() { Close(); }
  int Get() const { return fd_; }
  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

// A program under test, started with its own pipes; killed at destruction if it still runs.
class Program {
 public:
  static constexpr int kCannotExec = 127;
  static constexpr int kErrorFileMode = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;

  Program(const std::vector<std::string>& argv, const ProgramOptions& options)
      : input_(options.input),
        error_file_(options.error_file),
        deadline_(Clock::now() + options.deadline) {
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
      throw std::runtime_error("pipe2");
    }
    // Everything that allocates is done before the fork: this process may have threads.
    std::vector<char*> arguments = Pointers(argv);
    const std::vector<std::string> environment = MergedEnvironment(options.environment);
    std::vector<char*> variables = Pointers(environment);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      dup2(error_file_.empty() ? err[1] : open(error_file_.c_str(), kErrorFileMode, 0644), 2);
      Become(options);
      prctl(PR_SET_PDEATHSIG, SIGKILL);  // nothing is left running by a test that was killed
      execve(arguments[0], arguments.data(), variables.data());
      _exit(kCannotExec);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    in_ = Fd(in[1]);
    out_ = Fd(out[0]);
    err_ = Fd(err[0]);
    for (const int fd : {in[1], out[0], err[0]}) fcntl(fd, F_SETFL, O_NONBLOCK);
    pidfd_ = Fd(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
    if (pid_ < 0 || pidfd_.Get() < 0) throw std::runtime_error("fork");
  }
  ~Program() {
    if (!reaped_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  pid_t Pid() const { return pid_; }
  int PidFd() const { return pidfd_.Get(); }
  void Signal(int number) const {
    if (!reaped_) kill(pid_, number);
  }
  // Passes the time until the program ends, at most `span`; true when it has ended.
  bool EndsWithin(std::chrono::microseconds span) const {
    const auto until = Clock::now() + span;
    while (true) {
      const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(until - Clock::now());
      if (left.count() <= 0) return false;
      const timespec timeout = {static_cast<time_t>(left.count() / 1000000000),
                                static_cast<long>(left.count() % 1000000000)};
      pollfd wait = {pidfd_.Get(), POLLIN, 0};
      if (ppoll(&wait, 1, &timeout, nullptr) == 1) return true;
    }
  }
  // Feeds the input and collects the output until the program ends or the deadline passes; a
  // program that is late is killed.
  Finished Finish() {
    while (!reaped_) {
      if (!Exchange()) Reap();
    }
    DrainAll();
    return result_;
  }

 private:
  static std::vector<char*> Pointers(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
  }
  static std::vector<std::string> MergedEnvironment(
      const std::map<std::string, std::string>& changes) {
    std::vector<std::string> merged;
    for (char** variable = environ; *variable != nullptr; ++variable) {
      const std::string text = *variable;
      if (changes.count(text.substr(0, text.find('='))) == 0) merged.push_back(text);
    }
    for (const auto& [name, value] : changes) merged.push_back(name + "=" + value);
    return merged;
  }
  static void Become(const ProgramOptions& options) {
    // The tests' own dispositions and masks are no one else's business.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    signal(SIGXFSZ, options.ignore_file_size_signal ? SIG_IGN : SIG_DFL);
    if (!options.identity) return;
    const Identity& who = *options.identity;
    if (setgroups(who.groups.size(), who.groups.data()) != 0 || setgid(who.gid) != 0 ||
        setuid(who.uid) != 0) {
      _exit(kCannotExec);
    }
  }

  // Closes the pipe at its end of file.
  static void Drain(Fd& fd, std::string& text) {
    if (fd.Get() < 0) return;
    char buffer[65536];
    ssize_t n = 0;
    while ((n = read(fd.Get(), buffer, sizeof(buffer))) > 0) {
      text.append(buffer, static_cast<size_t>(n));
    }
    if (n == 0) fd.Close();
  }
  void DrainAll() {
    Drain(out_, result_.out);
    Drain(err_, result_.err);
  }
  void Feed() {
    while (written_ < input_.size()) {
      const ssize_t n = write(in_.Get(), input_.data() + written_, input_.size() - written_);
      if (n < 0 && errno == EAGAIN) return;
      if (n <= 0) break;
      written_ += static_cast<size_t>(n);
    }
    in_.Close();
  }
  // False when the program has ended.
  bool Exchange() {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now());
    if (left.count() <= 0 && !result_.timed_out) {
      result_.timed_out = true;
      kill(pid_, SIGKILL);
    }
    if (in_.Get() >= 0) Feed();
    // poll passes over descriptors that are closed already.
    pollfd waits[] = {{pidfd_.Get(), POLLIN, 0},
                      {out_.Get(), POLLIN, 0},
                      {err_.Get(), POLLIN, 0},
                      {in_.Get(), POLLOUT, 0}};
    poll(waits, 4, result_.timed_out ? -1 : static_cast<int>(left.count()) + 1);
    DrainAll();
    return (waits[0].revents & POLLIN) == 0;
  }
  void Reap() {
    int status = 0;
    if (waitpid(pid_, &status, 0) != pid_) return;
    reaped_ = true;
    if (WIFEXITED(status) && !result_.timed_out) result_.exit_code = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) {
      result_.signal = WTERMSIG(status);
      result_.core = WCOREDUMP(status);
    }
  }

  pid_t pid_ = -1;
  Fd pidfd_, in_, out_, err_;
  const std::string input_;
  const std::string error_file_;
  size_t written_ = 0;
  Clock::time_point deadline_;
  bool reaped_ = false;
  Finished result_;
};

inline Finished RunProgram(const std::vector<std::string>& argv,
                           const ProgramOptions& options = {}) {
  signal(SIGPIPE, SIG_IGN);
  return Program(argv, options).Finish();
}

}  // namespace support

#endif  // SUPPORT_PROGRAM_H_
