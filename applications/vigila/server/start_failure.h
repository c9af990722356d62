#ifndef VIGILA_SERVER_START_FAILURE_H_
#define VIGILA_SERVER_START_FAILURE_H_

#include <utility>

#include "tevra/osa/exception.h"
#include "vigila/server/export.h"

namespace vigila::server {

// Why the server did not come up, for a daemon that must say so in its exit code.
class VIGILA_EXPORT StartFailure : public tevra::osa::Exception {
 public:
  enum Cause { kStore, kBus, kInUse };

  StartFailure(Cause cause, const char* text) : Exception("%s", text), cause_(cause) {}
  Cause cause() const noexcept { return cause_; }

  // Runs a step of the start; what it throws has the cause from then on and keeps its text.
  template <typename Step>
  static auto During(Cause cause, Step&& step) {
    try {
      return std::forward<Step>(step)();
    } catch (const Exception& e) {
      throw StartFailure(cause, e.what());
    }
  }

 private:
  Cause cause_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_START_FAILURE_H_
