#ifndef KRAND_INTERFACES_PERMISSION_TARGET_H_
#define KRAND_INTERFACES_PERMISSION_TARGET_H_

#include <boost/shared_ptr.hpp>
#include <memory>
#include <string>

#include "krand/core/krand_core.h"
#include "tevra/msgbus/served_interface.h"

// A permission target: reads and changes access rules. The order of the virtual operations is the
// platform's contract. Texts are NUL-terminated; 0 means done, 1 refused.
class KrandApiPermissionTargetImplBase {
 public:
  explicit KrandApiPermissionTargetImplBase(void* context) : context_(context) {}
  virtual ~KrandApiPermissionTargetImplBase();
  KrandApiPermissionTargetImplBase(const KrandApiPermissionTargetImplBase&) = delete;
  KrandApiPermissionTargetImplBase& operator=(const KrandApiPermissionTargetImplBase&) = delete;

  virtual bool isRunnable() { return true; }
  // On 0, `*rule` is a malloc'd text that the caller frees.
  virtual int getAccessRule(const char* path, char** rule) = 0;
  virtual int setAccessRule(const char* path, const char* rule) = 0;
  virtual void log(krand_core_log_priority priority, const char* format, ...)
      __attribute__((format(printf, 3, 4)));

 private:
  void* const context_;
};

// Serves a target under a name on the message bus, on a thread of its own, one request at a time,
// until it is destroyed; destruction waits for a request under way. Callers need the service role
// to read and the admin role to change. Throws tevra::osa::Exception when the bus refuses the name.
class KrandApiPermissionTargetRun {
 public:
  KrandApiPermissionTargetRun(const std::string& name, void* context,
                              boost::shared_ptr<KrandApiPermissionTargetImplBase> target);
  ~KrandApiPermissionTargetRun();
  KrandApiPermissionTargetRun(const KrandApiPermissionTargetRun&) = delete;
  KrandApiPermissionTargetRun& operator=(const KrandApiPermissionTargetRun&) = delete;

  static tevra::msgbus::ServedInterface Description();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

#endif  // KRAND_INTERFACES_PERMISSION_TARGET_H_
