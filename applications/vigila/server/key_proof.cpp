#include "vigila/server/key_proof.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
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

// What the child process ends with.
enum Verdict : int { kKeyOfOne, kKeyOfNone, kUnusable };

// In the child. The reason why the library does not take the key goes through the pipe.
Verdict Judge(AtRestCipher& cipher, const std::vector<std::string>& stored, int pipe) {
  try {
    return cipher.IsKeyOf(stored) ? kKeyOfOne : kKeyOfNone;
  } catch (const std::exception& error) {
    static_cast<void>(!write(pipe, error.what(), std::strlen(error.what())));
    return kUnusable;
  }
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

int AwaitEnd(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
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
    _exit(getppid() == server ? Judge(cipher, stored, write_end.get()) : kUnusable);
  }
  write_end.Reset();
  const std::string reason = ReadToTheEnd(read_end.get());
  const int status = AwaitEnd(child);
  if (!WIFEXITED(status)) {
    throw Exception("key file %s: its proof was ended by signal %d", path, WTERMSIG(status));
  }
  if (WEXITSTATUS(status) == kUnusable) throw Exception("%s", reason.c_str());
  return WEXITSTATUS(status) == kKeyOfOne;
}

}  // namespace

void OpenAndProveKey(AtRestCipher& cipher) {
  cipher.Open(StoredSecrets::Any());
  // One value as a rule, so that not all of them are in memory at once.
  const std::vector<std::string> first = StoredSecrets::Read(1);
  if (first.empty() || IsKeyOf(cipher, first)) return;
  if (IsKeyOf(cipher, StoredSecrets::Read(std::numeric_limits<size_t>::max()))) return;
  throw Exception("key file %s: not the key of the values in the settings",
                  cipher.KeyFile().c_str());
}

}  // namespace vigila::server
