#ifndef VIGILA_CONTRACT_LIMITS_H_
#define VIGILA_CONTRACT_LIMITS_H_

#include <cstddef>

namespace vigila::contract {

// The realm of every HTTP digest.
inline constexpr char kRealm[] = "Varno";

// Accounts, the anonymous one included, and what they may be called; in bytes.
inline constexpr std::size_t kMaxUsers = 1024;
inline constexpr std::size_t kMinNameBytes = 2;
inline constexpr std::size_t kMaxNameBytes = 32;
inline constexpr std::size_t kMinPasswordBytes = 4;
inline constexpr std::size_t kMaxPasswordBytes = 64;

// A session ends when it was not used for so long.
inline constexpr int kSessionTimeoutSecs = 1800;

// From where a session is used, as a front tells it; in bytes.
inline constexpr std::size_t kMaxSourceBytes = 128;

// A nonce from the server is so many lower-case hexadecimal digits, and is good for so long.
inline constexpr std::size_t kNonceDigits = 32;
inline constexpr int kNonceLifetimeSecs = 300;
// How far the creation time of a UsernameToken may be off the device's clock, either way.
inline constexpr int kClockToleranceSecs = 300;
// A UsernameToken digest: SHA-1.
inline constexpr std::size_t kWsseDigestBytes = 20;

}  // namespace vigila::contract

#endif  // VIGILA_CONTRACT_LIMITS_H_
