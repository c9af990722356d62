#include "vigilactl/result_sentences.h"

#include <algorithm>

#include "vigilactl/printable_text.h"

namespace vigilactl {
namespace {

struct Sentence {
  int code;
  const char* text;
};

constexpr Sentence kSentences[] = {
    {0, "Done."},
    {1, "The name is shorter than 2 bytes."},
    {2, "The name is longer than 32 bytes."},
    {3, "The name contains a blank, \"#\" or \"/\"."},
    {4, "The name is taken: it exists already, occurs twice in the request, or is \"nobody\"."},
    {5, "The password is shorter than 4 bytes."},
    {6, "The password is longer than 64 bytes."},
    {7, "The group is not allowed for this name."},
    {8, "Groups 0 and 16 are for \"nobody\" alone, and \"nobody\" has no password to change."},
    {9, "There is no room: 1024 accounts, \"nobody\" included, are the most."},
    {10, "There is no such user."},
    {11, "The last administrator must stay, and \"nobody\" cannot be deleted."},
    {12, "The request is malformed: a member is missing or of the wrong type."},
    {14, "The password is one of the last five of this account."},
    {15, "The password was changed less than a day ago."},
    {16, "The account is disabled after too many invalid passwords."},
    {17, "The password is correct but has expired."},
    {18, "The password is wrong, or it is too soon after a wrong one."},
};

struct RefusedLogon {
  const char* answer;
  const char* text;
};

constexpr RefusedLogon kRefusedLogons[] = {
    {"NO_TOKEN", "No session: the name or the password is wrong."},
    {"_EXPIRED", "No session: the password is correct but has expired."},
    {"DISABLED", "No session: the account is disabled after too many invalid passwords."},
    {"NODIGEST", "No session: this account cannot log on with a digest."},
};

}  // namespace

std::string SentenceOf(int code) {
  for (const Sentence& sentence : kSentences) {
    if (sentence.code == code) return sentence.text;
  }
  return "The service answered with the unknown code " + std::to_string(code) + ".";
}

bool IsSessionToken(const std::string& answer) {
  return answer.size() == 8 && std::all_of(answer.begin(), answer.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
         });
}

std::string SentenceOfRefusedLogon(const std::string& answer) {
  for (const RefusedLogon& refused : kRefusedLogons) {
    if (answer == refused.answer) return refused.text;
  }
  return "No session: the service answered \"" + Printable(answer) + "\".";
}

}  // namespace vigilactl
