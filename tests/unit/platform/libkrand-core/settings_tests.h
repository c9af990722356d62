#ifndef LIBKRAND_CORE_SETTINGS_TESTS_H_
#define LIBKRAND_CORE_SETTINGS_TESTS_H_

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "support/capturing_log.h"

namespace krand::core {

using Texts = std::vector<std::string>;

// What the settings functions complained of.
inline Texts ErrorLines(const support::CapturingLog& log) {
  return log.TextsOf("krand", tevra::core::Logger::kError);
}

// Runs `body` in a child and gives its exit code.
inline int InChild(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) _exit(body());
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

}  // namespace krand::core

#endif  // LIBKRAND_CORE_SETTINGS_TESTS_H_
