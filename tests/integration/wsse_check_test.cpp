// The verb that needs no service, as a whole program.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/program.h"
#include "support/temp_dir.h"

namespace {

using support::Finished;
using support::ProgramOptions;

class WsseCheckProgram : public testing::Test {
 protected:
  Finished Check(std::vector<std::string> arguments, const std::string& input = "") const {
    arguments.insert(arguments.begin(), {VIGILACTL_PATH, "wsse-check"});
    ProgramOptions options;
    options.input = input;
    options.environment["TEVRA_PLATFORM_CONFIG"] = dir_.Write("platform.ini", "");
    return support::RunProgram(arguments, options);
  }
  static std::string Recording() { return TEST_DATA_DIR "/soap/0599-zeep12.xml"; }
  static bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
  }

  const support::TempDir dir_;
};

TEST_F(WsseCheckProgram, ReadsAFileOrStandardInput) {
  std::ifstream stream(Recording(), std::ios::binary);
  const std::string envelope{std::istreambuf_iterator<char>(stream), {}};
  const Finished file = Check({Recording()});
  const Finished input = Check({"-"}, envelope);
  for (const Finished& end : {file, input}) {
    EXPECT_EQ(end.exit_code, 1) << end.err;  // it was recorded in the past
    EXPECT_TRUE(Has(end.out, "Username  alice\nPassword  XgHV9Z7CjeaPFczaChccqTWI6DQ=\n"))
        << end.out;
    EXPECT_TRUE(Has(end.out, "A logon with this envelope fails:\n  The creation time is "));
  }
}

TEST_F(WsseCheckProgram, ChecksThePasswordThatItIsGiven) {
  const char sentence[] = "The digest is not that of this password, nonce and creation time.";
  EXPECT_FALSE(Has(Check({Recording(), "--password-stdin"}, "secret\n").out, sentence));
  EXPECT_TRUE(Has(Check({Recording(), "--password-stdin"}, "secrets").out, sentence));
  EXPECT_TRUE(Has(Check({Recording(), "--password-stdin", "--json"}, "").out, sentence));
  EXPECT_EQ(Check({dir_.Write("empty", ""), "--password-stdin"}, "secret").exit_code, 1);
}

TEST_F(WsseCheckProgram, EndsWithTheStatusOfWrongUsage) {
  EXPECT_EQ(Check({}).exit_code, 2);
  EXPECT_EQ(Check({"-", "--password-stdin"}).exit_code, 2);
  EXPECT_EQ(Check({dir_.File("missing")}).exit_code, 2);
  EXPECT_EQ(Check({dir_.File("missing"), "--json"}).out,
            "{\"Exit\":2,\"Message\":\"cannot read " + dir_.File("missing") + "\"}\n");
}

}  // namespace
