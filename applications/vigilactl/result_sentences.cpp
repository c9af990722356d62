#include "vigilactl/result_sentences.h"

#include "vigila/contract/result_codes.h"
#include "vigila/contract/result_tokens.h"
#include "vigilactl/printable_text.h"

namespace vigilactl {
namespace {

namespace contract = vigila::contract;

struct Sentence {
  int code;
  const char* text;
};

constexpr Sentence kSentences[] = {
    {contract::kOk, "Done."},
    {contract::kNameTooShort, "The name is shorter than 2 bytes."},
    {contract::kNameTooLong, "The name is longer than 32 bytes."},
    {contract::kNameHasBadCharacter, "The name contains a blank, \"#\" or \"/\"."},
    {contract::kNameTaken,
     "The name is taken: it exists already, occurs twice in the request, or is \"nobody\"."},
    {contract::kPasswordTooShort, "The password is shorter than 4 bytes."},
    {contract::kPasswordTooLong, "The password is longer than 64 bytes."},
    {contract::kBadGroup, "The group is not allowed for this name."},
    {contract::kGroupOnlyForNobody,
     "Groups 0 and 16 are for \"nobody\" alone, and \"nobody\" has no password to change."},
    {contract::kTooManyUsers,
     "There is no room: 1024 accounts, \"nobody\" included, are the most."},
    {contract::kUnknownUser, "There is no such user."},
    {contract::kLastAdministrator,
     "The last administrator must stay, and \"nobody\" cannot be deleted."},
    {contract::kMalformed, "The request is malformed: a member is missing or of the wrong type."},
    {contract::kOldPassword, "The password is one of the last five of this account."},
    {contract::kPasswordTooYoung, "The password was changed less than a day ago."},
    {contract::kDisabled, "The account is disabled after too many invalid passwords."},
    {contract::kExpired, "The password is correct but has expired."},
    {contract::kWrongPassword, "The password is wrong, or it is too soon after a wrong one."},
    {contract::kNoSuchSession, "There is no such session."},
    {contract::kNoSuchRule, "There is no rule for this path that can be changed."},
    {contract::kBusy, "Another backup or restoration is under way: try again in a minute."},
    {contract::kNoSuchTask, "The service has given this up for another one: begin again."},
    {contract::kBackupDamaged, "The file is damaged, cut short, or not a backup."},
    {contract::kBackupNewer,
     "The file is a backup of a later version of vigilad: update this device first."},
    {contract::kBackupLocked, "The passphrase is not the one of the backup."},
    {contract::kBackupTooLarge, "A backup has 8 MiB at the most, and this would be more."},
    {contract::kPassphraseTooShort, "The passphrase of a backup has 12 bytes at least."},
    {contract::kStoreChanged,
     "The device's accounts have changed in the meantime and nothing was restored: look at the "
     "backup again."},
};

struct RefusedLogon {
  const char* answer;
  const char* text;
};

constexpr RefusedLogon kRefusedLogons[] = {
    {contract::kNoToken, "No session: the name or the password is wrong."},
    {contract::kExpiredToken, "No session: the password is correct but has expired."},
    {contract::kDisabledToken,
     "No session: the account is disabled after too many invalid passwords."},
    {contract::kNoDigestToken, "No session: this account cannot log on with a digest."},
};

}  // namespace

std::string SentenceOf(int code) {
  for (const Sentence& sentence : kSentences) {
    if (sentence.code == code) return sentence.text;
  }
  return "The service answered with the unknown code " + std::to_string(code) + ".";
}

std::string SentenceOfRefusedLogon(const std::string& answer) {
  for (const RefusedLogon& refused : kRefusedLogons) {
    if (answer == refused.answer) return refused.text;
  }
  return "No session: the service answered \"" + Printable(answer) + "\".";
}

}  // namespace vigilactl
