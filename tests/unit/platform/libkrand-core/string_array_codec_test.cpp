#include "krand/core/string_array_codec.h"

#include <gtest/gtest.h>

namespace {

using krand::core::StringArrayCodec;
using Texts = std::vector<std::string>;

std::string Bytes(std::initializer_list<int> values) {
  std::string bytes;
  for (const int value : values) bytes.push_back(static_cast<char>(value));
  return bytes;
}

TEST(StringArrayCodec, WritesCountThenLengthAndBytesOfEach) {
  EXPECT_EQ(StringArrayCodec::Encode({}), Bytes({0, 0, 0, 0}));
  EXPECT_EQ(StringArrayCodec::Encode({"ab", ""}),
            Bytes({0, 0, 0, 2, 0, 0, 0, 2, 'a', 'b', 0, 0, 0, 0}));
}

TEST(StringArrayCodec, GivesBackWhatItWrote) {
  for (const Texts& texts : {Texts{}, Texts{""}, Texts{"a", "", "ccc"}, Texts{"\xff\x01", "{}"},
                             Texts(300, std::string(300, 'x'))}) {
    EXPECT_EQ(StringArrayCodec::Decode(StringArrayCodec::Encode(texts)), texts);
  }
}

TEST(StringArrayCodec, RefusesEveryCutAndEveryByteTooMany) {
  const std::string whole = StringArrayCodec::Encode({"ab", "", "c"});
  for (size_t size = 0; size < whole.size(); ++size) {
    EXPECT_EQ(StringArrayCodec::Decode(whole.substr(0, size)), std::nullopt) << size;
  }
  EXPECT_EQ(StringArrayCodec::Decode(whole + '\0'), std::nullopt);
}

TEST(StringArrayCodec, DoesNotBelieveACountOrALengthBeyondTheBytes) {
  EXPECT_EQ(StringArrayCodec::Decode(Bytes({0xff, 0xff, 0xff, 0xff})), std::nullopt);
  EXPECT_EQ(StringArrayCodec::Decode(Bytes({0, 0, 0, 1, 0xff, 0xff, 0xff, 0xff, 'a'})),
            std::nullopt);
  EXPECT_EQ(StringArrayCodec::Decode(Bytes({0x40, 0, 0, 0, 0, 0, 0, 0})), std::nullopt);
}

}  // namespace
