// What is read as a backup's content is written and read again as the same.
#include "vigila/server/backup/backup_content.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "vigila/contract/limits.h"
#include "vigila/contract/result_codes.h"
#include "vigila/server/backup/backup_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vigila;
  using server::BackupContent;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  // No input has the check sum that it would need.
  if (server::BackupFile::Inspect(bytes) == contract::kApplied) std::abort();
  const auto content = BackupContent::Decode(bytes);
  if (!content) return 0;
  if (content->accounts.size() > contract::kMaxUsers) std::abort();
  const tevra::core::SecretText written = content->Encode();
  if (written.Size() != size) std::abort();
  const auto again = BackupContent::Decode(written.View());
  if (!again || again->accounts != content->accounts || again->histories != content->histories ||
      again->passphrases != content->passphrases || again->rules != content->rules) {
    std::abort();
  }
  return 0;
}
