#ifndef SUPPORT_AT_REST_KEY_FIXTURE_H_
#define SUPPORT_AT_REST_KEY_FIXTURE_H_

#include <filesystem>
#include <string>

#include "support/temp_dir.h"
#include "vigila/server/at_rest_cipher.h"
#include "vigila/server/at_rest_key.h"

namespace support {

// Lets a server of the present platform find a small at-rest key beside its settings. The key is
// made once for the whole test program; making one takes longer than most tests.
class AtRestKeyFixture {
 public:
  AtRestKeyFixture() { std::filesystem::copy_file(Path(), KeyFile()); }

  // The shared key file; copy it before damaging it.
  static const std::string& Path() {
    static const SharedKey key;
    return key.path;
  }
  // Where a server of the present platform looks.
  static std::string KeyFile() { return vigila::server::AtRestCipher("").KeyFile(); }

 private:
  struct SharedKey {
    SharedKey() {
      using Key = vigila::server::AtRestKey;
      Key::Create(path, Key::kMinimumBits);
    }
    const TempDir dir;
    const std::string path = dir.File("test.key");
  };
};

}  // namespace support

#endif  // SUPPORT_AT_REST_KEY_FIXTURE_H_
