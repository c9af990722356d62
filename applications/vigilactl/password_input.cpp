#include "vigilactl/password_input.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include "tevra/osa/descriptor.h"
#include "vigilactl/exit_code.h"

namespace vigilactl {
namespace {

using tevra::core::SecretText;

volatile sig_atomic_t caught_signal = 0;

void RememberSignal(int number) {
  caught_signal = number;
}

// Signals that would otherwise leave the terminal without echo.
constexpr int kSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGTSTP, SIGTTIN, SIGTTOU};

// Turns echo off for its lifetime and holds the signals back meanwhile: they are let through only
// while ReadLine waits, so that none slips in between; the terminal is put right, and only then the
// signal takes its usual effect.
class SilentTerminal final {
 public:
  explicit SilentTerminal(int fd) : fd_(fd) {
    caught_signal = 0;
    struct sigaction action = {};
    action.sa_handler = RememberSignal;
    sigemptyset(&action.sa_mask);
    sigset_t held;
    sigemptyset(&held);
    for (const int number : kSignals) sigaddset(&held, number);
    sigprocmask(SIG_BLOCK, &held, &mask_before_);
    for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &action, &before_[i]);
    if (tcgetattr(fd_, &settings_) != 0) return;
    termios silent = settings_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
    silenced_ = tcsetattr(fd_, TCSAFLUSH, &silent) == 0;
  }
  ~SilentTerminal() {
    if (silenced_) tcsetattr(fd_, TCSAFLUSH, &settings_);
    for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &before_[i], nullptr);
    sigprocmask(SIG_SETMASK, &mask_before_, nullptr);
  }
  SilentTerminal(const SilentTerminal&) = delete;
  SilentTerminal& operator=(const SilentTerminal&) = delete;

  bool Silenced() const { return silenced_; }
  const sigset_t& MaskBefore() const { return mask_before_; }

 private:
  const int fd_;
  bool silenced_ = false;
  termios settings_ = {};
  sigset_t mask_before_ = {};
  struct sigaction before_[std::size(kSignals)] = {};
};

void WriteText(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0) return;
    done += static_cast<size_t>(n);
  }
}

enum class LineEnd { kComplete, kEndOfFile, kSignal };

LineEnd ReadLine(int fd, const sigset_t& waiting_mask, std::string& line) {
  while (line.size() <= kMaxSecretBytes) {
    pollfd wait = {fd, POLLIN, 0};
    if (ppoll(&wait, 1, nullptr, &waiting_mask) < 0) return LineEnd::kSignal;
    char byte = 0;
    if (read(fd, &byte, 1) != 1) return LineEnd::kEndOfFile;
    if (byte == '\n') return LineEnd::kComplete;
    line.push_back(byte);
  }
  return LineEnd::kEndOfFile;
}

SecretText AskOnce(int terminal, const std::string& question) {
  while (true) {
    std::string line;
    line.reserve(4096);  // a terminal line is no longer; growth would leave copies behind
    LineEnd end = LineEnd::kEndOfFile;
    {
      const SilentTerminal silent(terminal);
      if (!silent.Silenced()) throw UsageError("the terminal cannot be silenced for a password");
      WriteText(terminal, question);
      end = ReadLine(terminal, silent.MaskBefore(), line);
      WriteText(terminal, "\n");
    }
    SecretText answer(std::move(line));
    if (end == LineEnd::kComplete) return answer;
    if (end == LineEnd::kEndOfFile) throw UsageError("no answer at the terminal");
    // Stopped or ended now, with the terminal in order; asked again when continued.
    raise(caught_signal);
  }
}

SecretText AskTerminal(const std::string& what, bool confirm) {
  const tevra::osa::Descriptor terminal(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
  if (!terminal) {
    throw UsageError("there is no terminal to ask for the " + what + ": use --password-stdin");
  }
  SecretText first = AskOnce(terminal.get(), "The " + what + ": ");
  if (!confirm) return first;
  const SecretText second = AskOnce(terminal.get(), "The " + what + " again: ");
  if (first.Text() != second.Text()) throw UsageError("the two answers differ");
  return first;
}

SecretText ReadStandardInput(const std::string& what) {
  std::string text;
  char buffer[65536];
  while (true) {
    const ssize_t n = read(STDIN_FILENO, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw UsageError("the " + what + " cannot be read from standard input");
    if (n == 0) break;
    text.append(buffer, static_cast<size_t>(n));
    if (text.size() > kMaxSecretBytes) throw UsageError("the " + what + " is too long");
  }
  explicit_bzero(buffer, sizeof(buffer));
  if (text.ends_with('\n')) text.erase(text.size() - (text.ends_with("\r\n") ? 2 : 1));
  return SecretText(std::move(text));
}

}  // namespace

SecretText ReadSecret(SecretSource source, const std::string& what, bool confirm) {
  return source == SecretSource::kStandardInput ? ReadStandardInput(what)
                                                : AskTerminal(what, confirm);
}

}  // namespace vigilactl
