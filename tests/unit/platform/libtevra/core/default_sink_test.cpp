#include "tevra/core/default_sink.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>

#include "support/platform_fixture.h"
#include "tevra/osa/descriptor.h"

namespace {

using tevra::core::DefaultSink;
using tevra::core::Logger;
using tevra::osa::Descriptor;

std::string StreamOf(int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0) return "";
  return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

TEST(DefaultSink, LeavesPrintableTextAlone) {
  const std::string text = "user alice logged in from [::1] \xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\xb7";
  EXPECT_EQ(DefaultSink::Escape(text), text);
  EXPECT_EQ(DefaultSink::Escape(""), "");
}

TEST(DefaultSink, EscapesEveryControlByteSoThatNoOneForgesALine) {
  EXPECT_EQ(DefaultSink::Escape("a\nnotice UserMap: b"), "a\\x0anotice UserMap: b");
  EXPECT_EQ(DefaultSink::Escape("\r\t\x1b[2J\x7f"), "\\x0d\\x09\\x1b[2J\\x7f");
  EXPECT_EQ(DefaultSink::Escape(std::string("\0", 1)), "\\x00");
  EXPECT_EQ(DefaultSink::Escape("\xc2\x85\xc2\x9b"), "\\xc2\\x85\\xc2\\x9b");
  EXPECT_EQ(DefaultSink::Escape("\xe2\x80\xa8\xe2\x80\xa9"), "\\xe2\\x80\\xa8\\xe2\\x80\\xa9");
  EXPECT_EQ(DefaultSink::Escape("\xc2\xa0"), "\xc2\xa0");
}

TEST(DefaultSink, EscapesTheBackslashSoThatAnEscapeCannotBeForged) {
  EXPECT_EQ(DefaultSink::Escape("a\\x0ab"), "a\\x5cx0ab");
}

TEST(DefaultSink, EscapesBytesThatAreNotUtf8) {
  EXPECT_EQ(DefaultSink::Escape("\xff"), "\\xff");
  EXPECT_EQ(DefaultSink::Escape("\xc3"), "\\xc3");
  EXPECT_EQ(DefaultSink::Escape("\xe2\x82"), "\\xe2\\x82");
  EXPECT_EQ(DefaultSink::Escape("\xe2\x82z"), "\\xe2\\x82z");
  EXPECT_EQ(DefaultSink::Escape("\xc0\x8a"), "\\xc0\\x8a");
  EXPECT_EQ(DefaultSink::Escape("\xe0\x80\x8a"), "\\xe0\\x80\\x8a");
  EXPECT_EQ(DefaultSink::Escape("\xf0\x80\x80\x8a"), "\\xf0\\x80\\x80\\x8a");
  EXPECT_EQ(DefaultSink::Escape("\xed\xa0\x80"), "\\xed\\xa0\\x80");
  EXPECT_EQ(DefaultSink::Escape("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");
}

TEST(DefaultSink, KnowsTheJournalByDeviceAndInode) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const std::string stream = StreamOf(ends[1]);
  EXPECT_TRUE(DefaultSink::IsJournalStream(stream.c_str(), ends[1]));
  EXPECT_FALSE(DefaultSink::IsJournalStream((stream + "0").c_str(), ends[1]));
  EXPECT_FALSE(DefaultSink::IsJournalStream((stream + ":1").c_str(), ends[1]));
  for (const char* text : {"", ":", "1", "1:", ":1", "a:b"}) {
    EXPECT_FALSE(DefaultSink::IsJournalStream(text, ends[1])) << text;
  }
  EXPECT_FALSE(DefaultSink::IsJournalStream(nullptr, ends[1]));
  close(ends[0]);
  close(ends[1]);
  EXPECT_FALSE(DefaultSink::IsJournalStream(stream.c_str(), ends[1]));
}

TEST(DefaultSink, WritesOneLineToStandardError) {
  unsetenv("JOURNAL_STREAM");
  DefaultSink sink;
  ::testing::internal::CaptureStderr();
  sink.Write(Logger::kError, "User\nMap", "alice\nbob");
  sink.Write(Logger::kInformation, "", "");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "error User\\x0aMap: alice\\x0abob\ninformation : \n");
}

TEST(DefaultSink, FallsBackToStandardErrorWhenTheStreamIsAnother) {
  setenv("JOURNAL_STREAM", "1:1", 1);
  DefaultSink sink;
  ::testing::internal::CaptureStderr();
  sink.Write(Logger::kDebug, "UserMap", "x");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "debug UserMap: x\n");
  unsetenv("JOURNAL_STREAM");
}

TEST(DefaultSink, SurvivesAClosedStandardError) {
  EXPECT_EXIT(
      {
        close(STDERR_FILENO);
        DefaultSink().Write(Logger::kError, "UserMap", "x");
        _exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

// Both ends of something that standard error is put on. The writing end is this process's standard
// error while the object lives.
class OwnStandardError {
 public:
  explicit OwnStandardError(std::array<int, 2> ends)
      : reader_(ends[0]), writer_(ends[1]), before_(dup(STDERR_FILENO)) {
    unsetenv("JOURNAL_STREAM");
    dup2(writer_.get(), STDERR_FILENO);
  }
  ~OwnStandardError() { dup2(before_.get(), STDERR_FILENO); }

  // Until not a byte is taken any more.
  void Fill() {
    fcntl(writer_.get(), F_SETFL, O_NONBLOCK);
    while (write(writer_.get(), "x", 1) == 1) continue;
    fcntl(writer_.get(), F_SETFL, 0);
  }
  std::string Drain() {
    fcntl(reader_.get(), F_SETFL, O_NONBLOCK);
    std::string all;
    std::array<char, 65536> some;
    ssize_t count = 0;
    while ((count = read(reader_.get(), some.data(), some.size())) > 0) {
      all.append(some.data(), static_cast<size_t>(count));
    }
    return all;
  }
  void CloseReader() { reader_.Reset(); }

 private:
  Descriptor reader_;
  const Descriptor writer_;
  const Descriptor before_;
};

std::array<int, 2> NewPipe() {
  std::array<int, 2> ends{};
  EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  return ends;
}

std::array<int, 2> NewSocketPair() {
  std::array<int, 2> ends{};
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  return ends;
}

class DefaultSinkWithoutAReader : public testing::TestWithParam<std::array<int, 2> (*)()> {
 protected:
  OwnStandardError stderr_{GetParam()()};
  DefaultSink sink_;
};

INSTANTIATE_TEST_SUITE_P(Any, DefaultSinkWithoutAReader, testing::Values(NewPipe, NewSocketPair));

// A sink that waited would keep these tests from ending.
TEST_P(DefaultSinkWithoutAReader, DropsWhatDoesNotFitAndSaysHowMuch) {
  stderr_.Fill();
  for (int i = 0; i < 3; ++i) sink_.Write(Logger::kError, "V", "lost");
  stderr_.Drain();
  sink_.Write(Logger::kNotice, "V", "first");
  sink_.Write(Logger::kNotice, "V", "second");
  EXPECT_EQ(stderr_.Drain(), "warning Logger: 3 lines lost\nnotice V: first\nnotice V: second\n");
}

TEST_P(DefaultSinkWithoutAReader, CountsOnWhileNothingIsTaken) {
  stderr_.Fill();
  sink_.Write(Logger::kError, "V", "lost");
  stderr_.Drain();
  stderr_.Fill();
  sink_.Write(Logger::kError, "V", "lost too");
  stderr_.Drain();
  sink_.Write(Logger::kNotice, "V", "x");
  EXPECT_EQ(stderr_.Drain(), "warning Logger: 2 lines lost\nnotice V: x\n");
}

TEST_P(DefaultSinkWithoutAReader, EndsALineThatWasCutBeforeTheNext) {
  sink_.Write(Logger::kNotice, "V", std::string(4 << 20, 'x'));
  const std::string cut = stderr_.Drain();
  EXPECT_LT(cut.size(), size_t{4 << 20});
  EXPECT_EQ(cut.find_first_not_of('x', sizeof "notice V: " - 1), std::string::npos);
  sink_.Write(Logger::kNotice, "V", "y");
  EXPECT_EQ(stderr_.Drain(), "\nwarning Logger: 1 line lost\nnotice V: y\n");
}

TEST_P(DefaultSinkWithoutAReader, DoesNotDieOfAReaderThatHasGone) {
  signal(SIGPIPE, SIG_DFL);
  stderr_.CloseReader();
  sink_.Write(Logger::kError, "V", "lost");
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
  OwnStandardError successor(GetParam()());
  sink_.Write(Logger::kNotice, "V", "x");
  EXPECT_EQ(successor.Drain(), "warning Logger: 1 line lost\nnotice V: x\n");
}

TEST_P(DefaultSinkWithoutAReader, LeavesASignalOfSomeoneElsePending) {
  sigset_t pipe_signal, before, pending;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, &before);
  pthread_kill(pthread_self(), SIGPIPE);
  stderr_.CloseReader();
  sink_.Write(Logger::kError, "V", "lost");
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 1);
  int taken = 0;
  sigwait(&pipe_signal, &taken);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_P(DefaultSinkWithoutAReader, LeavesTheStreamBlockingForOtherProcesses) {
  sink_.Write(Logger::kNotice, "V", "x");
  EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK, 0);
}

TEST(DefaultSink, DropsWhatDoesNotFitWhenNoDescriptorIsLeft) {
  OwnStandardError own(NewPipe());
  own.Fill();
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit none{3, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  DefaultSink sink;
  sink.Write(Logger::kError, "V", "lost");
  own.Drain();
  sink.Write(Logger::kNotice, "V", "x");
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(own.Drain(), "warning Logger: 1 line lost\nnotice V: x\n");
}

TEST(DefaultSink, AppendsToAFileWhereOthersHaveWritten) {
  std::array<char, 32> path = {"/tmp/default-sink-XXXXXX"};
  Descriptor file(mkstemp(path.data()));
  ASSERT_TRUE(file);
  unlink(path.data());
  ASSERT_EQ(write(file.get(), "before\n", 7), 7);
  const Descriptor stderr_before(dup(STDERR_FILENO));
  dup2(file.get(), STDERR_FILENO);
  DefaultSink().Write(Logger::kNotice, "V", "x");
  dup2(stderr_before.get(), STDERR_FILENO);
  std::array<char, 64> all{};
  ASSERT_GT(pread(file.get(), all.data(), all.size() - 1, 0), 0);
  EXPECT_STREQ(all.data(), "before\nnotice V: x\n");
}

// Puts a socket of ours in the journal's place, in a mount namespace of this process alone. -1
// where the system does not allow it.
int OpenOwnJournal() {
  if (unshare(CLONE_NEWNS) != 0) return -1;
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return -1;
  if (mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0) return -1;
  std::filesystem::create_directories("/run/systemd/journal");
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {AF_UNIX, "/run/systemd/journal/socket"};
  return bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 ? fd : -1;
}

constexpr int kNotAllowed = 77;

// Logs one line with standard error as the journal's; exits with 0 when exactly the fields came.
[[noreturn]] void LogIntoOwnJournal() {
  const int journal = OpenOwnJournal();
  if (journal < 0) _exit(kNotAllowed);
  setenv("JOURNAL_STREAM", StreamOf(STDERR_FILENO).c_str(), 1);
  DefaultSink().Write(Logger::kNotice, "UserMap", "alice\nMESSAGE=bob");
  char datagram[4096];
  const ssize_t size = recv(journal, datagram, sizeof(datagram), MSG_DONTWAIT);
  const std::string got(datagram, size > 0 ? static_cast<size_t>(size) : 0);
  _exit(got == "PRIORITY=5\nMESSAGE=alice\\x0aMESSAGE=bob\nSYSLOG_IDENTIFIER=camera\n"
               "VIGILA_LOGGER=UserMap\n"
            ? 0
            : 1);
}

// A journal that reads nothing. Exits with 0 when the line it has no room for is on standard error.
[[noreturn]] void LogIntoAFullJournal() {
  const Descriptor journal(OpenOwnJournal());
  if (!journal) _exit(kNotAllowed);
  alarm(20);
  OwnStandardError own(NewPipe());
  setenv("JOURNAL_STREAM", StreamOf(STDERR_FILENO).c_str(), 1);
  DefaultSink sink;
  std::string got;
  for (int i = 0; i < 10000 && got.empty(); ++i) {
    sink.Write(Logger::kNotice, "UserMap", "x");
    got = own.Drain();
  }
  _exit(got == "notice UserMap: x\n" ? 0 : 1);
}

int ExitCodeOf(void (*child_main)()) {
  const pid_t child = fork();
  if (child == 0) {
    child_main();
    _exit(99);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(DefaultSink, SendsFieldsToTheJournal) {
  support::PlatformFixture fixture;
  fixture.Set("Logging", "identifier", "camera");
  const int code = ExitCodeOf([] { LogIntoOwnJournal(); });
  if (code == kNotAllowed) GTEST_SKIP() << "no mount namespace here";
  EXPECT_EQ(code, 0);
}

TEST(DefaultSink, DoesNotWaitForAJournalThatDoesNotRead) {
  const int code = ExitCodeOf([] { LogIntoAFullJournal(); });
  if (code == kNotAllowed) GTEST_SKIP() << "no mount namespace here";
  EXPECT_EQ(code, 0);
}

TEST(DefaultSink, WritesToStandardErrorWhenTheJournalHasNoSocket) {
  if (access("/run/systemd/journal/socket", F_OK) == 0) GTEST_SKIP() << "there is a journal here";
  ::testing::internal::CaptureStderr();
  setenv("JOURNAL_STREAM", StreamOf(STDERR_FILENO).c_str(), 1);
  DefaultSink().Write(Logger::kWarning, "UserMap", "x");
  unsetenv("JOURNAL_STREAM");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "warning UserMap: x\n");
}

}  // namespace
