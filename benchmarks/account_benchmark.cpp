// One durable account change beside one fdatasync of a page in the same directory, and how often
// the calling thread flushes for it.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "benchmarks/support/pairs.h"
#include "benchmarks/support/server_in_process.h"
#include "support/program.h"

namespace {
thread_local int flushes = 0;
}  // namespace

// The program's own stand before the C library's for every library of the process.
extern "C" {
int fsync(int fd) {
  ++flushes;
  return static_cast<int>(syscall(SYS_fsync, fd));
}
int fdatasync(int fd) {
  ++flushes;
  return static_cast<int>(syscall(SYS_fdatasync, fd));
}
}  // extern "C"

namespace {

using benchmarks::Batch;
using benchmarks::RegisterFigure;
using benchmarks::RegisterPair;
using benchmarks::ServerInProcess;
using benchmarks::Timed;

std::unique_ptr<ServerInProcess> server;

void Modify(const std::string& json) {
  if (server->Provider().ModifyUsers(json) != 0) throw std::runtime_error("refused");
}

// From call to call another group: every change must be one.
void ChangeGroup() {
  static bool viewer = true;
  viewer = !viewer;
  Modify(viewer ? R"({"Users":[{"Name":"alice","Group":8}]})"
                : R"({"Users":[{"Name":"alice","Group":4}]})");
}

void ChangePassword() {
  static int number = 0;
  Modify(R"({"Users":[{"Name":"alice","Group":8,"Password":"secret)" + std::to_string(++number) +
         "\"}]}");
}

// A file of a megabyte whose pages are written again and again.
class PagesOnDisk {
 public:
  PagesOnDisk() {
    const std::string path = server->Platform().SettingsDir() + "/floor";
    file_ = support::Fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    unlink(path.c_str());
    for (int i = 0; i < kPages; ++i) Write();
    fsync(file_.Get());
  }
  void WriteDurably() {
    Write();
    if (fdatasync(file_.Get()) != 0) throw std::runtime_error("fdatasync");
  }

 private:
  static constexpr int kPages = 256;
  void Write() {
    if (pwrite(file_.Get(), page_.data(), page_.size(), next_++ % kPages * 4096) != 4096) {
      throw std::runtime_error("write");
    }
  }

  support::Fd file_;
  const std::string page_ = std::string(4096, 'p');
  int next_ = 0;
};

std::pair<Batch, Batch> WithFloor(void (*change)()) {
  const auto pages = std::make_shared<PagesOnDisk>();
  return {Timed(change), Timed([pages] { pages->WriteDurably(); })};
}

double FlushesOf(void (*change)()) {
  constexpr int kChanges = 100;
  const int before = flushes;
  for (int i = 0; i < kChanges; ++i) change();
  if (flushes == before) throw std::runtime_error("no flush was counted");
  return static_cast<double>(flushes - before) / kChanges;
}

}  // namespace

int main(int argc, char** argv) {
  server = std::make_unique<ServerInProcess>();
  RegisterFigure("flushes for an account change", "", 1.0, [] { return FlushesOf(ChangeGroup); });
  RegisterFigure("flushes for a password change", "", 1.0,
                 [] { return FlushesOf(ChangePassword); });
  RegisterPair({.name = "account change, durable", .floor = "one fdatasync of a page"},
               [] { return WithFloor(ChangeGroup); });
  RegisterPair({.name = "password change, durable", .floor = "one fdatasync of a page"},
               [] { return WithFloor(ChangePassword); });
  const int status = benchmarks::RunAll(argc, argv);
  server.reset();
  return status;
}
