#ifndef VIGILACTL_RESULT_SENTENCES_H_
#define VIGILACTL_RESULT_SENTENCES_H_

#include <string>

namespace vigilactl {

// What a result code of the account operations and of the password check means, in one sentence.
std::string SentenceOf(int code);

// Why a logon gave no session, from the word answered in place of a token.
std::string SentenceOfRefusedLogon(const std::string& answer);

}  // namespace vigilactl

#endif  // VIGILACTL_RESULT_SENTENCES_H_
