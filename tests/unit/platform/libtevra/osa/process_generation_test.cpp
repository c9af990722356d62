#include "tevra/osa/process_generation.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using tevra::osa::ProcessGeneration;

int StatusOf(pid_t child) {
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return status;
}

TEST(ProcessGeneration, TellsWhatAChildInheritedFromWhatItMade) {
  const ProcessGeneration parents;
  EXPECT_FALSE(parents.IsInherited());
  const pid_t child = fork();
  if (child == 0) {
    const ProcessGeneration own;
    if (!parents.IsInherited() || own.IsInherited()) _exit(1);
    const pid_t grandchild = fork();
    if (grandchild == 0) _exit(parents.IsInherited() && own.IsInherited() ? 0 : 1);
    _exit(StatusOf(grandchild) == 0 && !own.IsInherited() ? 0 : 1);
  }
  EXPECT_EQ(StatusOf(child), 0);
  EXPECT_FALSE(parents.IsInherited());
}

}  // namespace
