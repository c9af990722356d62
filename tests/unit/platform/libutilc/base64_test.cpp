#include "utilc/base64.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>

#include "utilc/randbytes.h"

namespace {

std::string Encode(const std::string& data) {
  std::string text(base64_encode_len(data.size()), '?');
  EXPECT_EQ(base64_encode(data.data(), data.size(), text.data(), text.size()), text.size());
  return text;
}

std::string Decode(const std::string& text) {
  std::string data(text.size(), '?');
  data.resize(base64_decode(text.data(), text.size(), data.data(), data.size()));
  return data;
}

TEST(Base64, EncodesTheKnownVectors) {
  EXPECT_EQ(Encode(""), "");
  EXPECT_EQ(Encode("f"), "Zg==");
  EXPECT_EQ(Encode("fo"), "Zm8=");
  EXPECT_EQ(Encode("foo"), "Zm9v");
  EXPECT_EQ(Encode("foob"), "Zm9vYg==");
  EXPECT_EQ(Encode("fooba"), "Zm9vYmE=");
  EXPECT_EQ(Encode("foobar"), "Zm9vYmFy");
  EXPECT_EQ(Encode(std::string("\0\xff\xfe", 3)), "AP/+");
}

TEST(Base64, DecodesWhatItEncodes) {
  for (size_t length = 0; length < 300; ++length) {
    std::string data(length, '\0');
    randbytes(data.data(), data.size());
    EXPECT_EQ(Decode(Encode(data)), data) << length;
  }
}

TEST(Base64, TellsTheLengthOfTheText) {
  EXPECT_EQ(base64_encode_len(0), 0U);
  EXPECT_EQ(base64_encode_len(1), 4U);
  EXPECT_EQ(base64_encode_len(3), 4U);
  EXPECT_EQ(base64_encode_len(4), 8U);
}

TEST(Base64, TellsALengthThatNoBufferHasWhenTheTextWouldBeTooLong) {
  EXPECT_EQ(base64_encode_len(SIZE_MAX), SIZE_MAX);
  EXPECT_EQ(base64_encode_len(SIZE_MAX / 4 * 3 + 3), SIZE_MAX);
  EXPECT_EQ(base64_encode_len(SIZE_MAX / 4 * 3), SIZE_MAX / 4 * 4);
}

TEST(Base64, WritesNothingIntoABufferThatIsTooSmall) {
  char text[5] = "....";
  EXPECT_EQ(base64_encode("f", 1, text, 3), 0U);
  EXPECT_STREQ(text, "....");
  char data[4] = "...";
  EXPECT_EQ(base64_decode("Zm9v", 4, data, 2), 0U);
  EXPECT_STREQ(data, "...");
}

TEST(Base64, NeedsNoRoomForPadding) {
  char data[1];
  EXPECT_EQ(base64_decode("Zg==", 4, data, 1), 1U);
  EXPECT_EQ(data[0], 'f');
}

TEST(Base64, RefusesWrongLengths) {
  for (const char* text : {"Z", "Zg", "Zg=", "Zm9vY", "Zm9vYg=", "Zm9vYg===", "Zg==="}) {
    EXPECT_EQ(Decode(text), "") << text;
  }
}

TEST(Base64, RefusesPaddingInWrongPlaces) {
  for (const char* text :
       {"====", "Z===", "=Zg=", "Zg=a", "Zg==Zm9v", "Zm8=Zm9v", "Z=g=", "=m9v"}) {
    EXPECT_EQ(Decode(text), "") << text;
  }
}

TEST(Base64, RefusesOtherAlphabets) {
  for (const char* text : {"AP_-", "Zm9 ", "Zm\n9", "Zm9*", "Zm9\xff", "Zm9v\r\nYg"}) {
    EXPECT_EQ(Decode(text), "") << text;
  }
  EXPECT_EQ(Decode(std::string("Zm9\0", 4)), "");
}

TEST(Base64, RefusesUnusedBitsThatAreSet) {
  EXPECT_EQ(Decode("Zh=="), "");
  EXPECT_EQ(Decode("Zv=="), "");
  EXPECT_EQ(Decode("Zm9="), "");
  EXPECT_EQ(Decode("Zm+="), "");
}

TEST(Base64, LeavesTheBufferUntouchedWhenItRefuses) {
  char data[6] = ".....";
  EXPECT_EQ(base64_decode("Zm9v*===", 8, data, sizeof(data)), 0U);
  EXPECT_STREQ(data, ".....");
}

TEST(Base64, GivesEachValueOneSpelling) {
  const std::string characters =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=-_ \n";
  std::set<std::string> values;
  size_t accepted = 0;
  for (const char third : characters) {
    for (const char fourth : characters) {
      const std::string text = std::string("Qk") + third + fourth;
      const std::string value = Decode(text);
      if (value.empty()) continue;
      ++accepted;
      values.insert(value);
      EXPECT_EQ(Encode(value), text);
    }
  }
  // "Qk??": 64 * 64 whole groups and 16 of two bytes; "Qk==" has unused bits set.
  EXPECT_EQ(accepted, 64U * 64U + 16U);
  EXPECT_EQ(values.size(), accepted);
}

TEST(Base64, DecodesOverItsOwnText) {
  std::string text = "Zm9vYmFy";
  EXPECT_EQ(base64_decode(text.data(), text.size(), text.data(), text.size()), 6U);
  EXPECT_EQ(text.substr(0, 6), "foobar");
}

}  // namespace
