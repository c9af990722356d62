#ifndef MSGBUS_NO_NEW_DESCRIPTORS_H_
#define MSGBUS_NO_NEW_DESCRIPTORS_H_

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace tevra::msgbus {

// While it lives this process can open nothing; what is open stays open.
class NoNewDescriptors final {
 public:
  NoNewDescriptors() {
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
    const rlimit none{0, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  }
  ~NoNewDescriptors() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before_), 0); }
  NoNewDescriptors(const NoNewDescriptors&) = delete;
  NoNewDescriptors& operator=(const NoNewDescriptors&) = delete;

 private:
  rlimit before_{};
};

}  // namespace tevra::msgbus

#endif  // MSGBUS_NO_NEW_DESCRIPTORS_H_
