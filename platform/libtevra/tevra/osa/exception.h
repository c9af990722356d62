#ifndef TEVRA_OSA_EXCEPTION_H_
#define TEVRA_OSA_EXCEPTION_H_

#include <exception>
#include <string>

namespace tevra::osa {

// The platform's exception: a printf-style message, or a code with a text of its own. Derive only
// to let a catcher tell kinds apart.
class Exception : public std::exception {
 public:
  enum Code { kGeneral = 0, kUnimplemented = 1 };

  explicit Exception(const char* format, ...) __attribute__((format(printf, 2, 3)));
  explicit Exception(Code code);  // kUnimplemented says "unimplemented"

  const char* what() const noexcept override { return message_.c_str(); }
  Code code() const noexcept { return code_; }

 private:
  Code code_ = kGeneral;
  std::string message_;
};

}  // namespace tevra::osa

#endif  // TEVRA_OSA_EXCEPTION_H_
