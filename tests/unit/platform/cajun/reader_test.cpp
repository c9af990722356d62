#include "json/reader.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>

#include "json/writer.h"

namespace {

using json::Reader;
using json::UnknownElement;

UnknownElement Read(const std::string& text) {
  std::istringstream stream(text);
  UnknownElement element;
  Reader::Read(element, stream);
  return element;
}

std::string ReadAndWrite(const std::string& text) {
  std::ostringstream stream;
  json::Writer::Write(Read(text), stream);
  return stream.str();
}

TEST(JsonReader, ReadsAnAccountObject) {
  std::istringstream stream(R"({"Groups":1,"Password":"c2VjcmV0"})");
  json::Object account;
  Reader::Read(account, stream);
  EXPECT_EQ(json::Member(account, "Groups"), 1);
  EXPECT_EQ(json::Member(account, "Password"), "c2VjcmV0");
}

TEST(JsonReader, ReadsEveryTypeAtTheTop) {
  for (const char* text : {"{}", "[]", "\"x\"", "1", "true", "false", "null"}) {
    EXPECT_EQ(ReadAndWrite(text), text);
  }
  EXPECT_EQ(ReadAndWrite(" \r\n\t[ 1 , { \"a\" : [ ] } ] \n"), R"([1,{"a":[]}])");
}

TEST(JsonReader, RefusesADocumentOfAnotherTypeThanAsked) {
  std::istringstream stream("[]");
  json::Object object;
  object["kept"] = json::Null();
  EXPECT_THROW(Reader::Read(object, stream), Reader::ParseException);
  EXPECT_EQ(object.size(), 1U);
}

TEST(JsonReader, RefusesTwoMembersOfOneName) {
  for (const char* text :
       {R"({"a":1,"b":2,"a":1})", R"([{"x":{"a":{"c":3},"a":[]}}])", R"({"a":1,"\u0061":2})"}) {
    EXPECT_THROW(Read(text), Reader::ParseException) << text;
  }
  EXPECT_NO_THROW(Read(R"([{"a":1},{"a":{"a":1}}])"));
}

TEST(JsonReader, KeepsTheOrderOfTheMembers) {
  EXPECT_EQ(ReadAndWrite(R"({"z":1,"a":{"y":2,"b":3},"m":[]})"),
            R"({"z":1,"a":{"y":2,"b":3},"m":[]})");
}

TEST(JsonReader, RefusesWhatIsNotADocument) {
  const std::string refused[] = {"",
                                 " ",
                                 "{",
                                 "}",
                                 "[",
                                 "[1",
                                 "[1,",
                                 "[1,]",
                                 "{\"a\"}",
                                 "{\"a\":}",
                                 "{\"a\":1,}",
                                 "{a:1}",
                                 "{'a':1}",
                                 "{1:1}",
                                 "\"open",
                                 "\"\\x\"",
                                 "\"\\u12\"",
                                 "\"\\ud800\"",
                                 "\"tab\there\"",
                                 "tru",
                                 "nulll",
                                 "NaN",
                                 "Infinity",
                                 "+1",
                                 "01",
                                 "1.",
                                 ".5",
                                 "0x10",
                                 "1e",
                                 "-",
                                 "// comment\n1",
                                 "{}{}",
                                 "{} x",
                                 "1 2"};
  for (const std::string& text : refused) {
    EXPECT_THROW(Read(text), Reader::ParseException) << text;
  }
}

TEST(JsonReader, RefusesNumbersThatADoubleCannotHold) {
  EXPECT_THROW(Read("1e400"), Reader::ParseException);
  EXPECT_THROW(Read("-1e400"), Reader::ParseException);
  EXPECT_NO_THROW(Read("1e308"));
  EXPECT_NO_THROW(Read("123456789012345678901234567890"));
}

TEST(JsonReader, RefusesBytesThatAreNotUtf8) {
  EXPECT_THROW(Read("\"\xff\""), Reader::ParseException);
  EXPECT_THROW(Read("\"\xc3\""), Reader::ParseException);
  EXPECT_THROW(Read("{\"\xc0\xaf\":1}"), Reader::ParseException);
  EXPECT_THROW(Read("\"\xed\xa0\x80\""), Reader::ParseException);
  EXPECT_THROW(Read("\xff"), Reader::ParseException);
  EXPECT_NO_THROW(Read("\"\xc3\xa9\""));
}

TEST(JsonReader, RefusesZeroBytesAnywhere) {
  EXPECT_THROW(Read(std::string("{}\0", 3)), Reader::ParseException);
  EXPECT_THROW(Read(std::string("{}\0{}", 5)), Reader::ParseException);
  EXPECT_THROW(Read(std::string("\"a\0b\"", 5)), Reader::ParseException);
  EXPECT_THROW(Read(std::string("\0", 1)), Reader::ParseException);
}

TEST(JsonReader, KeepsAnEscapedZeroByte) {
  const UnknownElement element = Read("\"a\\u0000b\"");
  EXPECT_EQ(element.get<std::string>(), std::string("a\0b", 3));
}

TEST(JsonReader, ReadsToTheDeepestAllowedLevelAndNoFurther) {
  const auto nested = [](size_t depth, const char* open, const char* close) {
    std::string text;
    for (size_t i = 0; i < depth; ++i) text += open;
    text += "0";
    for (size_t i = 0; i < depth; ++i) text += close;
    return text;
  };
  const std::string deepest = nested(Reader::kMaxDepth, "[", "]");
  const UnknownElement element = Read(deepest);
  const UnknownElement copy = element;
  EXPECT_TRUE(copy == element);
  EXPECT_EQ(ReadAndWrite(deepest), deepest);
  EXPECT_THROW(Read(nested(Reader::kMaxDepth + 1, "[", "]")), Reader::ParseException);
  EXPECT_NO_THROW(Read(nested(Reader::kMaxDepth, "{\"a\":", "}")));
  EXPECT_THROW(Read(nested(Reader::kMaxDepth + 1, "{\"a\":", "}")), Reader::ParseException);
}

TEST(JsonReader, RefusesAMebibyteOfOpenBrackets) {
  EXPECT_THROW(Read(std::string(1024 * 1024, '[')), Reader::ParseException);
  std::string objects;
  while (objects.size() < 1024 * 1024) objects += "{\"\":";
  EXPECT_THROW(Read(objects), Reader::ParseException);
}

TEST(JsonReader, ReadsAMebibyteOfMembers) {
  std::string text = "{\"a\":0";
  size_t members = 1;
  while (text.size() < 1024 * 1024) text += ",\"" + std::to_string(members++) + "\":0";
  text += "}";
  const UnknownElement element = Read(text);
  EXPECT_EQ(element.size(), members);
}

TEST(JsonReader, LeavesTheElementUntouchedWhenItThrows) {
  std::istringstream stream("[1,2,");
  UnknownElement element = json::String("kept");
  EXPECT_THROW(Reader::Read(element, stream), Reader::ParseException);
  EXPECT_EQ(element, "kept");
}

TEST(JsonReader, TellsAStreamThatFailsFromABadDocument) {
  class Failing : public std::streambuf {
    int_type underflow() override { throw std::runtime_error("device"); }
  } buffer;
  std::istream stream(&buffer);
  UnknownElement element;
  EXPECT_THROW(Reader::Read(element, stream), Reader::ScanException);
  std::ifstream none("/nonexistent/document.json");
  EXPECT_THROW(Reader::Read(element, none), Reader::ScanException);
}

TEST(JsonReader, ReadsDocumentsLongerThanOneBlock) {
  for (const size_t size : {4093U, 4094U, 4095U, 4096U, 8190U, 8192U}) {
    const std::string text = '"' + std::string(size, 'x') + '"';
    EXPECT_EQ(ReadAndWrite(text), text) << size;
  }
}

TEST(JsonReader, ThrowsNothingButItsOwnExceptions) {
  try {
    Read("{\"a\":");
    FAIL();
  } catch (const json::Exception& error) {
    EXPECT_STRNE(error.what(), "");
  }
}

}  // namespace
