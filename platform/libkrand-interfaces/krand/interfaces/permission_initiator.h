#ifndef KRAND_INTERFACES_PERMISSION_INITIATOR_H_
#define KRAND_INTERFACES_PERMISSION_INITIATOR_H_

#include <memory>
#include <optional>
#include <string>

// The other side of a permission target: lets a service read and change another's access rules.
// Any thread may call. Throws tevra::osa::Exception when the target cannot be reached, or refuses
// the caller (the message says which role was missing).
class KrandApiPermissionInitiator {
 public:
  explicit KrandApiPermissionInitiator(const std::string& target_name);
  ~KrandApiPermissionInitiator();
  KrandApiPermissionInitiator(const KrandApiPermissionInitiator&) = delete;
  KrandApiPermissionInitiator& operator=(const KrandApiPermissionInitiator&) = delete;

  // Nothing when the target knows no such path.
  std::optional<std::string> GetAccessRule(const std::string& path);
  // False when the target refuses the change.
  bool SetAccessRule(const std::string& path, const std::string& rule);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

#endif  // KRAND_INTERFACES_PERMISSION_INITIATOR_H_
