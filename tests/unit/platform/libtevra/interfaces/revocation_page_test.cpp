#include "tevra/interfaces/revocation_page.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tevra/interfaces/answer_stamp.h"
#include "tevra/interfaces/revocation_page_writer.h"

namespace tevra::interfaces {
namespace {

constexpr uint64_t kInstance = 0x1234'5678'9abc'def0;

uint64_t Now() {
  timespec now;
  clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

// Shared memory with the words of a page, made as a test wants it.
osa::Descriptor Memory(const std::vector<uint64_t>& words, int seals) {
  osa::Descriptor memory(memfd_create("page", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  const auto bytes = static_cast<ssize_t>(words.size() * sizeof(uint64_t));
  EXPECT_EQ(write(memory.get(), words.data(), static_cast<size_t>(bytes)), bytes);
  EXPECT_EQ(fcntl(memory.get(), F_ADD_SEALS, seals), 0);
  return memory;
}

std::vector<uint64_t> WordsOf(const RevocationPageWriter& writer) {
  std::vector<uint64_t> words(sizeof(RevocationPage) / sizeof(uint64_t));
  EXPECT_EQ(pread(writer.Memory().get(), words.data(), sizeof(RevocationPage), 0),
            static_cast<ssize_t>(sizeof(RevocationPage)));
  return words;
}

constexpr int kSizeSeals = F_SEAL_SHRINK | F_SEAL_GROW;

TEST(RevocationPage, ShowsItsReadersWhatTheWriterDoes) {
  RevocationPageWriter writer(kInstance);
  const auto page = RevocationPage::Map(writer.Memory());
  ASSERT_NE(page, nullptr);
  EXPECT_EQ(page->Instance(), kInstance);
  EXPECT_EQ(page->Epoch(), 0u);
  EXPECT_EQ(page->Ends(), 0u);
  writer.RaiseEpoch();
  EXPECT_EQ(page->Epoch(), 1u);
  EXPECT_EQ(page->Ends(), 0u);
  writer.EndSession("0F3A9C21");
  EXPECT_EQ(page->Epoch(), 1u);
  EXPECT_EQ(page->Ends(), 1u);
  EXPECT_EQ(page->Slot(RevocationPage::SlotOf("0F3A9C21")), 1u);
  EXPECT_EQ(page->Slot(RevocationPage::kNoSession), 0u);
}

TEST(RevocationPage, IsAliveForTheTimeOfOneRenewalAndNoLonger) {
  const uint64_t before = Now();
  RevocationPageWriter writer(kInstance);
  const uint64_t life = std::chrono::nanoseconds(RevocationPageWriter::kLife).count();
  const auto page = RevocationPage::Map(writer.Memory());
  EXPECT_TRUE(page->IsAlive(before));
  EXPECT_TRUE(page->IsAlive(before + life - 1));
  EXPECT_FALSE(page->IsAlive(Now() + life));
  const uint64_t renewed = Now();
  writer.Renew();
  EXPECT_TRUE(page->IsAlive(renewed + life - 1));
}

TEST(RevocationPage, IsDeadAtOnceWhenItsWriterEnds) {
  auto writer = std::make_unique<RevocationPageWriter>(kInstance);
  const auto page = RevocationPage::Map(writer->Memory());
  ASSERT_TRUE(page->IsAlive(Now()));
  writer.reset();
  EXPECT_FALSE(page->IsAlive(0));
  EXPECT_EQ(page->Instance(), kInstance) << "the mapping outlives writer and descriptor";
}

TEST(RevocationPage, IsNotEndedByAChildThatDestroysTheWriterItInherited) {
  auto writer = std::make_unique<RevocationPageWriter>(kInstance);
  const auto page = RevocationPage::Map(writer->Memory());
  const pid_t child = fork();
  if (child == 0) {
    writer.reset();
    _exit(0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(page->IsAlive(1)) << "the parent still lives";
}

TEST(RevocationPage, CannotBeChangedByItsReaders) {
  const RevocationPageWriter writer(kInstance);
  const int memory = writer.Memory().get();
  EXPECT_EQ(mmap(nullptr, sizeof(RevocationPage), PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0),
            MAP_FAILED);
  const uint64_t word = 1;
  EXPECT_LT(pwrite(memory, &word, sizeof(word), 0), 0);
  EXPECT_NE(ftruncate(memory, 0), 0);
  EXPECT_NE(ftruncate(memory, 1 << 20), 0);
  EXPECT_NE(fcntl(memory, F_ADD_SEALS, F_SEAL_WRITE), 0) << "no reader can seal the writer out";
  // A private copy of the mapping cannot be made writable and shared, either.
  void* const mapped = mmap(nullptr, sizeof(RevocationPage), PROT_READ, MAP_SHARED, memory, 0);
  ASSERT_NE(mapped, MAP_FAILED);
  EXPECT_NE(mprotect(mapped, sizeof(RevocationPage), PROT_READ | PROT_WRITE), 0);
  munmap(mapped, sizeof(RevocationPage));
}

TEST(RevocationPage, IsSharedWithAChildThatMapsTheDescriptor) {
  RevocationPageWriter writer(kInstance);
  const pid_t child = fork();
  if (child == 0) {
    const auto page = RevocationPage::Map(writer.Memory());
    while (page && page->Epoch() == 0 && getppid() != 1) sched_yield();
    _exit(page && page->Epoch() == 1 ? 0 : 1);
  }
  writer.RaiseEpoch();
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST(RevocationPage, IsTakenFromSealedMemoryOfItsLayoutOnly) {
  const std::vector<uint64_t> words = WordsOf(RevocationPageWriter(kInstance));
  EXPECT_NE(RevocationPage::Map(Memory(words, kSizeSeals)), nullptr);
  EXPECT_EQ(RevocationPage::Map(Memory(words, 0)), nullptr) << "it could be cut short";
  EXPECT_EQ(RevocationPage::Map(Memory(words, F_SEAL_GROW)), nullptr);
  EXPECT_EQ(RevocationPage::Map(Memory(words, F_SEAL_SHRINK)), nullptr);

  std::vector<uint64_t> other = words;
  ++other[0];
  EXPECT_EQ(RevocationPage::Map(Memory(other, kSizeSeals)), nullptr) << "another layout";
  other = words;
  other[1] = 0;
  EXPECT_EQ(RevocationPage::Map(Memory(other, kSizeSeals)), nullptr) << "no instance";
  other = words;
  other.pop_back();
  EXPECT_EQ(RevocationPage::Map(Memory(other, kSizeSeals)), nullptr) << "too short";
  other = words;
  other.push_back(0);
  EXPECT_EQ(RevocationPage::Map(Memory(other, kSizeSeals)), nullptr) << "too long";
}

TEST(RevocationPage, IsNotTakenFromWhatIsNoSharedMemory) {
  EXPECT_EQ(RevocationPage::Map(osa::Descriptor()), nullptr);
  EXPECT_EQ(RevocationPage::Map(osa::Descriptor(open("/dev/zero", O_RDWR | O_CLOEXEC))), nullptr);
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  EXPECT_EQ(RevocationPage::Map(osa::Descriptor(ends[0])), nullptr);
  close(ends[1]);
}

TEST(RevocationPage, OfThisProcessNeverChangesNorDies) {
  const auto page = RevocationPage::Unchanging();
  EXPECT_EQ(page->Instance(), 0u);
  EXPECT_TRUE(page->IsAlive(UINT64_MAX - 1));
  EXPECT_EQ(page, RevocationPage::Unchanging());
}

TEST(RevocationPage, SpreadsTokensOverAllSlots) {
  std::set<size_t> slots;
  char token[9];
  for (unsigned i = 0; i < 8 * RevocationPage::kSlots; ++i) {
    std::snprintf(token, sizeof(token), "%08X", 1 + i * 2654435761u % 610839791u);
    slots.insert(RevocationPage::SlotOf(token));
  }
  EXPECT_GT(slots.size(), RevocationPage::kSlots * 99 / 100);
  EXPECT_LT(*slots.rbegin(), RevocationPage::kSlots);
}

TEST(AnswerStamp, HoldsUntilTheEpochIsRaised) {
  const auto page = std::make_shared<RevocationPage>(1);
  const AnswerStamp stamp(page);
  page->EndSession("t");
  EXPECT_TRUE(stamp.Holds(Now())) << "it concerns no session";
  page->RaiseEpoch();
  EXPECT_FALSE(stamp.Holds(Now()));
}

TEST(AnswerStamp, HoldsUntilTheSessionOfTheQuestionEnds) {
  const auto page = std::make_shared<RevocationPage>(1);
  page->EndSession("t");
  AnswerStamp stamp(page);
  stamp.Concerns("t");
  EXPECT_TRUE(stamp.Holds(Now()));
  page->EndSession("t");
  EXPECT_FALSE(stamp.Holds(Now()));
}

TEST(AnswerStamp, TakesATokenOfTheAnswerOnlyWhileNoSessionHasEndedSinceTheQuestion) {
  const auto page = std::make_shared<RevocationPage>(1);
  AnswerStamp quiet(page);
  EXPECT_TRUE(quiet.ConcernsAnswered("t"));
  EXPECT_TRUE(quiet.Holds(Now()));
  AnswerStamp disturbed(page);
  page->EndSession("u");
  EXPECT_FALSE(disturbed.ConcernsAnswered("t"));
}

TEST(AnswerStamp, NeverHoldsWithoutAPage) {
  AnswerStamp stamp(nullptr);
  stamp.Concerns("t");
  EXPECT_FALSE(stamp.Holds(Now()));
  EXPECT_FALSE(stamp.ConcernsAnswered("t"));
}

TEST(AnswerStamp, EndsWithTheServersLife) {
  const auto page = std::make_shared<RevocationPage>(1, 1000);
  const AnswerStamp stamp(page);
  EXPECT_TRUE(stamp.Holds(999));
  EXPECT_FALSE(stamp.Holds(1000));
}

}  // namespace
}  // namespace tevra::interfaces
