#ifndef SUPPORT_STEPPED_PROCESS_H_
#define SUPPORT_STEPPED_PROCESS_H_

#include <signal.h>
#include <stdio.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <functional>

namespace support {

// What a process does before, on, and after its way; the last says whether it found what it should.
struct Errand {
  std::function<void()> way;
  std::function<bool()> afterwards = [] { return true; };
  std::function<void()> preparation = [] {};
};

// A process on an errand that can be stopped before each system call of the way.
class SteppedProcess final {
 public:
  explicit SteppedProcess(const Errand& errand) : pid_(fork()) {
    if (pid_ == 0) Run(errand);
    Wait();
    ptrace(PTRACE_SETOPTIONS, pid_, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
  }
  ~SteppedProcess() { Kill(); }
  SteppedProcess(const SteppedProcess&) = delete;
  SteppedProcess& operator=(const SteppedProcess&) = delete;

  bool CanBeStopped() const { return WIFSTOPPED(status_); }
  // False when there are fewer calls on the way.
  bool StopBeforeCall(int number) {
    for (int stops = 0; stops < 2 * number - 1; ++stops) {  // one before a call and one after it
      ptrace(PTRACE_SYSCALL, pid_, nullptr, nullptr);
      Wait();
      if (!WIFSTOPPED(status_) || WSTOPSIG(status_) != kAtACall) return false;
    }
    return true;
  }
  // Lets it run on; its exit code.
  int Finish() {
    while (WIFSTOPPED(status_)) {
      ptrace(PTRACE_CONT, pid_, nullptr, nullptr);
      Wait();
    }
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : 1000 + WTERMSIG(status_);
  }
  void Kill() {
    if (!WIFSTOPPED(status_)) return;
    kill(pid_, SIGKILL);
    Wait();
  }

 private:
  static constexpr int kAtACall = SIGTRAP | 0x80;

  [[noreturn]] static void Run(const Errand& errand) {
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(1);
    try {
      errand.preparation();
      raise(SIGSTOP);
      errand.way();
      raise(SIGSTOP);
      _exit(errand.afterwards() ? 0 : 2);
    } catch (const std::exception& failure) {
      fprintf(stderr, "%s\n", failure.what());
      _exit(3);
    }
  }
  void Wait() { waitpid(pid_, &status_, 0); }

  const pid_t pid_;
  int status_ = 0;
};

}  // namespace support

#endif  // SUPPORT_STEPPED_PROCESS_H_
