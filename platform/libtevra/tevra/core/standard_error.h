#ifndef TEVRA_CORE_STANDARD_ERROR_H_
#define TEVRA_CORE_STANDARD_ERROR_H_

#include <string>
#include <string_view>

namespace tevra::core {

// Lines to standard error, whatever it is and whoever reads it, or does not: a write never waits
// for room, and a reader that has gone raises no SIGPIPE. Not synchronised.
class StandardError final {
 public:
  // One line, without its end. False when it was not taken, or not whole.
  bool Write(std::string_view line);

 private:
  bool is_torn_ = false;  // the last line lacks its end
};

}  // namespace tevra::core

#endif  // TEVRA_CORE_STANDARD_ERROR_H_
