#include "vigila/server/key_proof.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <exception>
#include <limits>
#include <string>
#include <vector>

#include "tevra/osa/descriptor.h"
#include "tevra/osa/exception.h"
#include "vigila/server/at_rest_cipher.h"
#include "vigila/server/stored_secrets.h"

namespace vigila::server {

namespace {

using tevra::osa::Descriptor;
using tevra::osa::Exception;

// The verdict that the child process writes into the pipe. Not its exit status: the kernel keeps
// none for a server that was started with SIGCHLD ignored.
constexpr char kKeyOfOne = '+';
constexpr char kKeyOfNone = '-';
constexpr char kUnusable = '!';  // and behind it the reason why the library does not take the key

// In the child, which must not get out of it: up there it would be a second server.
void Judge(AtRestCipher& cipher, const std::vector<std::string>& stored, int pipe) noexcept {
  std::string verdict;
  try {
    verdict = cipher.IsKeyOf(stored) ? kKeyOfOne : kKeyOfNone;
  } catch (const std::exception& error) {
    verdict = std::string(1, kUnusable) + error.what();
  }
  static_cast<void>(!write(pipe, verdict.data(), verdict.size()));
}

std::string ReadToTheEnd(int pipe) {
  std::string text;
  char part[512];
  for (;;) {
    const ssize_t length = read(pipe, part, sizeof part);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return text;
    text.append(part, static_cast<size_t>(length));
  }
}

// How it ended, as far as that can be learnt.
std::string AwaitEnd(pid_t child) {
  int status = 0;
  pid_t ended = 0;
  do {
    ended = waitpid(child, &status, 0);
  } while (ended < 0 && errno == EINTR);
  if (ended < 0 || !WIFSIGNALED(status)) return "without a verdict";
  return "by signal " + std::to_string(WTERMSIG(status));
}

bool IsKeyOf(AtRestCipher& cipher, const std::vector<std::string>& stored) {
  const char* const path = cipher.KeyFile().c_str();
  int ends[2] = {-1, -1};
  const bool piped = pipe2(ends, O_CLOEXEC) == 0;
  const Descriptor read_end(ends[0]);
  Descriptor write_end(ends[1]);
  const pid_t server = getpid();
  const pid_t child = piped ? fork() : -1;
  if (child < 0) throw Exception("key file %s: cannot be proven: %s", path, strerror(errno));
  if (child == 0) {
    // It holds a copy of the lock on the store, which must not outlive the server.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == server) Judge(cipher, stored, write_end.get());
    _exit(0);
  }
  write_end.Reset();
  const std::string verdict = ReadToTheEnd(read_end.get());
  const std::string end = AwaitEnd(child);
  if (verdict.empty()) throw Exception("key file %s: its proof ended %s", path, end.c_str());
  if (verdict[0] == kUnusable) throw Exception("%s", verdict.c_str() + 1);
  return verdict[0] == kKeyOfOne;
}

}  // namespace

void OpenAndProveKey(AtRestCipher& cipher) {
  cipher.Open(StoredSecrets::Any());
  // One value as a rule, so that not all of them are in memory at once.
  const std::vector<std::string> first = StoredSecrets::Read(1);
  if (IsKeyOf(cipher, first) || first.empty()) return;
  const std::vector<std::string> all = StoredSecrets::Read(std::numeric_limits<size_t>::max());
  if (all.size() > 1 && IsKeyOf(cipher, all)) return;
  throw Exception("key file %s: not the key of %s", cipher.KeyFile().c_str(),
                  all.size() > 1 ? "the values in the settings"
                                 : "the only value in the settings, unless that is damaged");
}

}  // namespace vigila::server
