#ifndef VIGILACTL_WORD_KINDS_H_
#define VIGILACTL_WORD_KINDS_H_

namespace vigilactl {

// What an argument or the value of an option is: its type name for the parser, which help shows
// behind options, and by which completion knows what to offer.
inline constexpr char kAccountWord[] = "ACCOUNT";
inline constexpr char kGroupWord[] = "GROUP";
inline constexpr char kFileWord[] = "FILE";
inline constexpr char kSessionWord[] = "SESSION";  // its identifier
inline constexpr char kPassphraseWord[] = "PASSPHRASE";
inline constexpr char kRulePathWord[] = "RULED-PATH";
inline constexpr char kRuleWord[] = "RULE";

}  // namespace vigilactl

#endif  // VIGILACTL_WORD_KINDS_H_
