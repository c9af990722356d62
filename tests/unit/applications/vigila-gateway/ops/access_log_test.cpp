#include "vigila-gateway/ops/access_log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "vigila-gateway/ops/json_text.h"

namespace {

using std::chrono::milliseconds;
using vigila::gateway::AccessLine;
using vigila::gateway::AccessRecord;
using vigila::gateway::JsonText;

AccessRecord Record() {
  AccessRecord record;
  record.time = std::chrono::system_clock::time_point(milliseconds(1767323045007));
  record.source = "10.0.0.1";
  record.method = "GET";
  record.path = "/a\"b";
  record.handler = "site";
  record.status = 200;
  record.bytes = 12;
  record.duration = std::chrono::microseconds(345);
  return record;
}

TEST(AccessLog, IsOneLineOfJson) {
  EXPECT_EQ(AccessLine(Record()),
            "{\"time\":\"2026-01-02T03:04:05.007Z\",\"source\":\"10.0.0.1\",\"handler\":\"site\","
            "\"method\":\"GET\",\"path\":\"/a\\\"b\",\"status\":200,\"bytes\":12,"
            "\"duration_us\":345}\n");
}

TEST(AccessLog, NamesTheUserWhoLoggedOn) {
  AccessRecord record = Record();
  record.user = "u\n\xff";
  EXPECT_NE(AccessLine(record).find(",\"user\":\"u\\u000a\\ufffd\","), std::string::npos);
}

TEST(AccessLog, WritesTheLineInOnePiece) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  WriteAccessLine(ends[1], Record());
  char text[1024];
  const ssize_t length = read(ends[0], text, sizeof(text));
  close(ends[0]);
  close(ends[1]);
  ASSERT_GT(length, 0);
  EXPECT_EQ(std::string(text, static_cast<size_t>(length)), AccessLine(Record()));
}

TEST(JsonText, EscapesWhatCannotStandInAString) {
  EXPECT_EQ(JsonText(""), "\"\"");
  EXPECT_EQ(JsonText("a\"\\\x01\x7f"), "\"a\\\"\\\\\\u0001\\u007f\"");
  EXPECT_EQ(JsonText(std::string_view("\0", 1)), "\"\\u0000\"");
  EXPECT_EQ(JsonText("\xc3\xa4\xf0\x9f\x8e\xa5"), "\"\xc3\xa4\xf0\x9f\x8e\xa5\"");
  EXPECT_EQ(JsonText("\xc3"), "\"\\ufffd\"");
  EXPECT_EQ(JsonText("\xc0\xaf"), "\"\\ufffd\\ufffd\"");
}

}  // namespace
