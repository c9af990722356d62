#ifndef SUPPORT_AT_REST_KEY_FIXTURE_H_
#define SUPPORT_AT_REST_KEY_FIXTURE_H_

#include <string>

#include "support/temp_dir.h"
#include "vigila/server/at_rest_cipher.h"

namespace support {

// Lets the at-rest cipher use a small key that is made once for the whole test program; making one
// takes longer than most tests. The cipher forgets it, and where it was, at the end.
class AtRestKeyFixture {
 public:
  AtRestKeyFixture() {
    vigila::server::AtRestCipher::Close();
    vigila::server::AtRestCipher::Configure(Path());
  }
  ~AtRestKeyFixture() {
    vigila::server::AtRestCipher::Close();
    vigila::server::AtRestCipher::Configure("");
  }
  AtRestKeyFixture(const AtRestKeyFixture&) = delete;
  AtRestKeyFixture& operator=(const AtRestKeyFixture&) = delete;

  // The shared key file; copy it before damaging it.
  static const std::string& Path() {
    static const KeyFile file;
    return file.path;
  }

 private:
  struct KeyFile {
    KeyFile() {
      vigila::server::AtRestCipher::CreateKeyFile(path, vigila::server::AtRestCipher::kMinimumBits);
    }
    const TempDir dir;
    const std::string path = dir.File("test.key");
  };
};

}  // namespace support

#endif  // SUPPORT_AT_REST_KEY_FIXTURE_H_
