#ifndef VIGILA_SERVER_KEY_FILE_H_
#define VIGILA_SERVER_KEY_FILE_H_

#include <cstddef>
#include <memory>
#include <string>

#include "tevra/core/secret_text.h"

namespace vigila::server {

// The file around an at-rest key, whatever is in it: read only when no one else could have read or
// written it, and never seen before it is whole. Failures throw tevra::osa::Exception that names
// the file.
class KeyFile {
 public:
  // The service manager hands credentials out with an access list, which shows as a group bit.
  enum class Kind { kOwnFile, kCredential };

  // Null when there is no such file; throws when it is there and cannot be trusted, or has fewer or
  // more bytes than given.
  static std::unique_ptr<tevra::core::SecretText> Read(const std::string& path, Kind kind,
                                                       size_t minimum, size_t maximum);

  // False when there is a file; throws when none could be made.
  static bool CanBeMade(const std::string& path);
  // Makes the file, durable when the call returns. False, with nothing changed, when a file of that
  // name has come to be in the meantime.
  static bool Make(const std::string& path, const tevra::core::SecretText& bytes);
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_KEY_FILE_H_
