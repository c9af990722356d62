#ifndef VIGILA_GATEWAY_HTTP_CONNECTION_BOUND_H_
#define VIGILA_GATEWAY_HTTP_CONNECTION_BOUND_H_

#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

namespace vigila::gateway {

// Counts the connections of each source, so that one client cannot hold all that the server has.
// An IPv6 network of 64 bits is one source, as one host has it whole: this is why the count of
// libmicrohttpd, which goes by single addresses, is not enough.
//
// Any thread may call. Threads that accept at the same moment may each admit one too many.
class ConnectionBound final {
 public:
  // No bound with a limit of 0.
  explicit ConnectionBound(size_t limit) : limit_(limit) {}

  bool Admits(std::string_view address) const;
  void Opened(std::string_view address);
  void Closed(std::string_view address);

  size_t Sources() const;

 private:
  const size_t limit_;
  mutable std::mutex mutex_;
  std::unordered_map<std::string, size_t> open_;  // guarded by mutex_; none with a count of 0
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_HTTP_CONNECTION_BOUND_H_
