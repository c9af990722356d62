#ifndef VIGILAD_EXIT_CODE_H_
#define VIGILAD_EXIT_CODE_H_

namespace vigila::daemon {

// How the daemon ends; the numbers of sysexits where it has one.
enum ExitCode {
  kStopped = 0,
  kUsage = 2,
  kUnavailable = 69,
  kFailed = 70,
  kStoreUnusable = 74,
  kBadConfiguration = 78,
};

}  // namespace vigila::daemon

#endif  // VIGILAD_EXIT_CODE_H_
