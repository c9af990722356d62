#include "krand/core/krand_core.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/platform_fixture.h"

namespace {

// Collects the calls that the platform reports.
class Trace final {
 public:
  Trace() {
    krand_core_set_trace_hook(
        [](const char* call, void* data) { static_cast<Trace*>(data)->calls.push_back(call); },
        this);
  }
  ~Trace() { krand_core_set_trace_hook(nullptr, nullptr); }
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;

  std::vector<std::string> calls;
};

TEST(KrandCore, CountsInitsAndDeinits) {
  EXPECT_EQ(krand_core_deinit(), KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_init(), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_init(), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_deinit(), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_deinit(), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_deinit(), KRAND_CORE_NOT_INITIALIZED);
}

TEST(KrandCore, ReportsInitDeinitBeginAndCommitInTheirOrder) {
  const support::PlatformFixture platform;
  Trace trace;
  void* context = nullptr;
  krand_core_ipc_handle handle = 0;
  krand_core_init();
  krand_core_settings_init("vigila");
  krand_core_logging_init("TRACED", &context);
  krand_core_ipc_initiator_init(context, 0, &handle);
  krand_core_settings_begin();
  krand_core_settings_set_string_value("a", "1");
  krand_core_settings_commit();
  krand_core_trace("sibling");
  krand_core_settings_deinit();
  krand_core_deinit();
  krand_core_ipc_deinit(handle);
  krand_core_logging_deinit(context);
  EXPECT_EQ(trace.calls,
            (std::vector<std::string>{"krand_core_init", "krand_core_settings_init",
                                      "krand_core_logging_init", "krand_core_ipc_initiator_init",
                                      "krand_core_settings_begin", "krand_core_settings_commit",
                                      "sibling", "krand_core_settings_deinit", "krand_core_deinit",
                                      "krand_core_ipc_deinit", "krand_core_logging_deinit"}));
}

TEST(KrandCore, ReportsToNoOneWithoutAHook) {
  { const Trace trace; }
  krand_core_trace("nobody listens");
}

TEST(KrandCoreIpc, GivesOutHandlesThatAreTakenBackOnce) {
  krand_core_ipc_handle first = 0;
  krand_core_ipc_handle second = 0;
  EXPECT_EQ(krand_core_ipc_initiator_init(nullptr, 0, &first), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_ipc_initiator_init(nullptr, 0, &second), KRAND_CORE_OK);
  EXPECT_NE(first, 0u);
  EXPECT_NE(second, 0u);
  EXPECT_NE(first, second);
  EXPECT_EQ(krand_core_ipc_deinit(first), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_ipc_deinit(first), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_ipc_deinit(second), KRAND_CORE_OK);
}

TEST(KrandCoreIpc, RefusesHandlesAndArgumentsItDoesNotKnow) {
  krand_core_ipc_handle handle = 7;
  EXPECT_EQ(krand_core_ipc_deinit(0), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_ipc_deinit(999999), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_ipc_initiator_init(nullptr, 0, nullptr), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_ipc_initiator_init(nullptr, 1, &handle), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(handle, 7u);
}

TEST(KrandCoreStringArray, BeginsEmptyAndTerminated) {
  char** array = krand_core_alloc_string_array(2);
  ASSERT_NE(array, nullptr);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(array[i], nullptr);
  array[0] = strdup("one");
  array[1] = strdup("two");
  krand_core_free_string_array(array);
  krand_core_free_string_array(krand_core_alloc_string_array(0));
  krand_core_free_string_array(nullptr);
}

TEST(KrandCoreStringArray, RefusesCountsThatDoNotFitIntoMemory) {
  EXPECT_EQ(krand_core_alloc_string_array(SIZE_MAX), nullptr);
  EXPECT_EQ(krand_core_alloc_string_array(SIZE_MAX / sizeof(char*)), nullptr);
}

}  // namespace
