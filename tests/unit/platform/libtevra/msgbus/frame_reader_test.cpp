#include "tevra/msgbus/wire/frame_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tevra/msgbus/wire/frame.h"

namespace tevra::msgbus::wire {
namespace {

constexpr size_t kMaxBody = 100000;

std::string FrameOf(const std::string& member, size_t bytes) {
  std::string frame;
  AppendFrame(&frame, {Kind::kSignal, 0, 1, {}, member, {}}, {std::string(bytes, 'x')});
  return frame;
}

// Hands the stream over in pieces of `piece` bytes and answers the frames that were found.
std::vector<std::string> Bodies(const std::string& stream, size_t piece) {
  FrameReader reader(kMaxBody);
  std::vector<std::string> bodies;
  for (size_t at = 0; at < stream.size();) {
    const std::span<char> space = reader.Space();
    EXPECT_FALSE(space.empty());
    const size_t count = std::min({piece, space.size(), stream.size() - at});
    std::copy_n(stream.data() + at, count, space.data());
    reader.Took(count);
    at += count;
    std::string_view body;
    while (reader.Next(&body) == FrameReader::State::kFrame) bodies.emplace_back(body);
  }
  EXPECT_FALSE(reader.HasMore());
  return bodies;
}

TEST(FrameReader, FindsTheSameFramesHoweverTheStreamIsCut) {
  std::string stream;
  std::vector<std::string> expected;
  for (const size_t bytes : std::initializer_list<size_t>{0, 1, 4000, 5000, 90000, 3, 4096}) {
    const std::string frame = FrameOf("m", bytes);
    stream += frame;
    expected.push_back(frame.substr(kLengthBytes));
  }
  for (const size_t piece : std::initializer_list<size_t>{1, 2, 3, 5, 100, 4096, 4097, 1 << 20}) {
    EXPECT_EQ(Bodies(stream, piece), expected) << piece;
  }
}

TEST(FrameReader, JudgesTheLengthBeforeTheRestHasCome) {
  FrameReader reader(kMaxBody);
  const std::string length = "\xa1\x86\x01";  // 100001, and one byte is missing
  std::copy(length.begin(), length.end(), reader.Space().data());
  reader.Took(length.size());
  std::string_view body;
  EXPECT_EQ(reader.Next(&body), FrameReader::State::kNeedsMore);
  reader.Space()[0] = '\0';
  reader.Took(1);
  EXPECT_EQ(reader.Next(&body), FrameReader::State::kTooLong);
}

TEST(FrameReader, TakesNoMemoryForWhatHasOnlyBeenAnnounced) {
  FrameReader reader(1 << 30);
  const std::string length("\0\0\0\x3f", 4);
  std::copy(length.begin(), length.end(), reader.Space().data());
  reader.Took(length.size());
  std::string_view body;
  EXPECT_EQ(reader.Next(&body), FrameReader::State::kNeedsMore);
  EXPECT_LE(reader.Space().size(), 4096u);
}

void Feed(FrameReader& reader, const std::string& stream) {
  for (size_t at = 0; at < stream.size();) {
    const std::span<char> space = reader.Space();
    const size_t count = std::min(space.size(), stream.size() - at);
    std::copy_n(stream.data() + at, count, space.data());
    reader.Took(count);
    at += count;
  }
}

TEST(FrameReader, GivesTheMemoryOfALargeFrameBackAsSoonAsItWasUsed) {
  FrameReader reader(kMaxBody);
  Feed(reader, FrameOf("m", 90000));
  std::string_view body;
  EXPECT_EQ(reader.Next(&body), FrameReader::State::kFrame);
  EXPECT_GT(reader.HeldBytes(), 90000u);
  reader.Wipe();
  EXPECT_LE(reader.HeldBytes(), 4096u);
  EXPECT_EQ(reader.Next(&body), FrameReader::State::kNeedsMore);
  EXPECT_EQ(reader.Space().size(), 4096u);
}

TEST(FrameReader, OverwritesAFrameThatWasUsedAndNothingOfTheNextOne) {
  FrameReader reader(kMaxBody);
  Feed(reader, FrameOf("first", 100) + FrameOf("second", 100));
  std::string_view first;
  ASSERT_EQ(reader.Next(&first), FrameReader::State::kFrame);
  reader.Wipe();
  EXPECT_EQ(std::count(first.begin(), first.end(), '\0'),
            static_cast<std::ptrdiff_t>(first.size()));
  std::string_view second;
  ASSERT_EQ(reader.Next(&second), FrameReader::State::kFrame);
  EXPECT_EQ(second, FrameOf("second", 100).substr(kLengthBytes));
}

TEST(FrameReader, LeavesNothingOfAFrameBehindTheOneThatMovesToTheFront) {
  FrameReader reader(kMaxBody);
  const std::string second = FrameOf("second", 100);
  Feed(reader, FrameOf("first", 100) + second.substr(0, 50));
  std::string_view body;
  ASSERT_EQ(reader.Next(&body), FrameReader::State::kFrame);
  const std::span<char> space = reader.Space();
  EXPECT_EQ(std::count(space.begin(), space.end(), '\0'),
            static_cast<std::ptrdiff_t>(space.size()));
  Feed(reader, second.substr(50));
  ASSERT_EQ(reader.Next(&body), FrameReader::State::kFrame);
  EXPECT_EQ(body, second.substr(kLengthBytes));
}

}  // namespace
}  // namespace tevra::msgbus::wire
