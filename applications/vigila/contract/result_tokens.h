#ifndef VIGILA_CONTRACT_RESULT_TOKENS_H_
#define VIGILA_CONTRACT_RESULT_TOKENS_H_

#include <cstddef>
#include <string_view>

// What a logon answers: the token of a session, or one of four texts in its place.
namespace vigila::contract {

// Refused; as an argument it stands for the anonymous caller.
inline constexpr char kNoToken[] = "NO_TOKEN";
// The password has expired; of an HTTP digest logon, the nonce is too old.
inline constexpr char kExpiredToken[] = "_EXPIRED";
// Locked after too many wrong passwords.
inline constexpr char kDisabledToken[] = "DISABLED";
// The account cannot log on with a digest.
inline constexpr char kNoDigestToken[] = "NODIGEST";

// A session's token is so many upper-case hexadecimal digits.
inline constexpr std::size_t kTokenDigits = 8;

constexpr bool IsSessionToken(std::string_view answer) {
  return answer.size() == kTokenDigits &&
         answer.find_first_not_of("0123456789ABCDEF") == std::string_view::npos;
}

}  // namespace vigila::contract

#endif  // VIGILA_CONTRACT_RESULT_TOKENS_H_
