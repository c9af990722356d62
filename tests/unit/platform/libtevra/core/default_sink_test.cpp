#include "tevra/core/default_sink.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/platform_fixture.h"

namespace {

using tevra::core::DefaultSink;
using tevra::core::Logger;

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

TEST(DefaultSink, EscapesEveryControlByteSoThatNobodyForgesALine) {
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

TEST(DefaultSink, WritesToStandardErrorWhenTheJournalHasNoSocket) {
  if (access("/run/systemd/journal/socket", F_OK) == 0) GTEST_SKIP() << "there is a journal here";
  ::testing::internal::CaptureStderr();
  setenv("JOURNAL_STREAM", StreamOf(STDERR_FILENO).c_str(), 1);
  DefaultSink().Write(Logger::kWarning, "UserMap", "x");
  unsetenv("JOURNAL_STREAM");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "warning UserMap: x\n");
}

}  // namespace
