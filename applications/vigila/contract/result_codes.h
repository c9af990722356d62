#ifndef VIGILA_CONTRACT_RESULT_CODES_H_
#define VIGILA_CONTRACT_RESULT_CODES_H_

// The codes that account operations answer, as callers know them by number.
namespace vigila::contract {

// Codes of the user store: of checking a password, and of changing accounts.
enum StoreResult : int {
  kMerged = -1,  // inside the server only: at least one account was added or changed
  kOk = 0,
  kBadDigestLength = 1,  // inside the server only: a UsernameToken digest is no SHA-1 digest
  kBadNonce = 2,         // inside the server only: its nonce is not Base64, or empty
  kDigestNotAllowed = 3,
  kPasswordTooShort = 5,
  kNoDigest = 5,  // inside the server only: no digest can be formed from what is stored
  kPasswordTooLong = 6,
  kNobodyPassword = 8,
  kNoSuchUser = 10,
  kLastAdministrator = 11,
  kOldPassword = 14,
  kPasswordTooYoung = 15,
  kDisabled = 16,
  kExpired = 17,
  kWrongPassword = 18,
};

// Codes of adding, changing and deleting accounts by a document. Codes of the store pass through
// beside them: a refused password, kLastAdministrator.
enum AdministrationResult : int {
  kApplied = 0,
  kNameTooShort = 1,
  kNameTooLong = 2,
  kNameHasBadCharacter = 3,
  kNameTaken = 4,
  kBadGroup = 7,
  kGroupOnlyForNobody = 8,
  kTooManyUsers = 9,
  kUnknownUser = 10,
  kNobodyNotDeletable = 11,
  kMalformed = 12,
};

// Codes that only the administration interface answers, beside those of the accounts.
enum SupervisionResult : int {
  kNoSuchSession = 19,
  kNoSuchRule = 20,
  kBusy = 21,           // another backup or restoration is under way
  kNoSuchTask = 22,     // none with this identifier; begin again
  kBackupDamaged = 23,  // damaged, cut short, or not a backup
  kBackupNewer = 24,    // made by a later version
  kBackupLocked = 25,   // not made with this passphrase
  kBackupTooLarge = 26,
  kPassphraseTooShort = 27,
  kStoreChanged = 28,  // since the caller was told what would change
};

}  // namespace vigila::contract

#endif  // VIGILA_CONTRACT_RESULT_CODES_H_
