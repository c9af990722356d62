#include "vigilactl/result_sentences.h"

#include <gtest/gtest.h>

#include <set>

namespace vigilactl {
namespace {

TEST(SentenceOf, KnowsEveryCodeThatAnOperationAnswers) {
  std::set<std::string> sentences;
  for (const int code : {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 14,
                         15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28}) {
    const std::string sentence = SentenceOf(code);
    EXPECT_EQ(sentence.find("unknown code"), std::string::npos) << code;
    EXPECT_EQ(sentence.back(), '.');
    EXPECT_TRUE(sentences.insert(sentence).second) << "twice: " << sentence;
  }
}

TEST(SentenceOf, NamesACodeItDoesNotKnow) {
  EXPECT_EQ(SentenceOf(13), "The service answered with the unknown code 13.");
  EXPECT_EQ(SentenceOf(-1), "The service answered with the unknown code -1.");
  EXPECT_EQ(SentenceOf(29), "The service answered with the unknown code 29.");
}

TEST(SentenceOfRefusedLogon, ExplainsEveryWord) {
  EXPECT_EQ(SentenceOfRefusedLogon("NO_TOKEN"), "No session: the name or the password is wrong.");
  EXPECT_EQ(SentenceOfRefusedLogon("_EXPIRED"),
            "No session: the password is correct but has expired.");
  EXPECT_EQ(SentenceOfRefusedLogon("DISABLED"),
            "No session: the account is disabled after too many invalid passwords.");
  EXPECT_EQ(SentenceOfRefusedLogon("NODIGEST"),
            "No session: this account cannot log on with a digest.");
  EXPECT_EQ(SentenceOfRefusedLogon("\x1b"), "No session: the service answered \"\\x1b\".");
}

}  // namespace
}  // namespace vigilactl
