#ifndef VIGILACTL_PASSWORD_INPUT_H_
#define VIGILACTL_PASSWORD_INPUT_H_

#include <string>

#include "tevra/core/secret_text.h"

namespace vigilactl {

// Longest secret that is read, from either source.
inline constexpr size_t kMaxSecretBytes = 4u << 20;

// Where a verb takes its secret from.
enum class SecretSource { kTerminal, kStandardInput };

// Reads one secret. From the terminal: asks without echo, twice when `confirm`; the terminal is as
// before afterwards, also when a signal ends or stops the program meanwhile. From standard input:
// everything up to the end of file, less one line break at the end, as Unix or Windows writes it.
// Throws UsageError when there is no terminal, no input, or the two answers differ.
tevra::core::SecretText ReadSecret(SecretSource source, const std::string& what, bool confirm);

}  // namespace vigilactl

#endif  // VIGILACTL_PASSWORD_INPUT_H_
