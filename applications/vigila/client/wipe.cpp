#include "vigila/client/wipe.h"

#include <string.h>

namespace vigila::client {

void Wipe(std::string& text) {
  // What an earlier, longer value left behind the end is overwritten too.
  text.resize(text.capacity());
  explicit_bzero(text.data(), text.size());
  text.clear();
}

}  // namespace vigila::client
