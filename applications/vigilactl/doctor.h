#ifndef VIGILACTL_DOCTOR_H_
#define VIGILACTL_DOCTOR_H_

#include <string>
#include <vector>

#include "vigilactl/doctor_facts.h"

namespace vigilactl {

// What the doctor says of one thing that goes wrong in practice.
struct Finding {
  enum class Level { kOk, kWarning, kProblem, kSkipped };

  const char* check;  // one word; scripts rely on it
  Level level;
  std::string found;
  std::string remedy;  // of warnings and problems: what to do
};

// One finding for each check, always the same checks in the same order.
std::vector<Finding> Diagnose(const DoctorFacts& facts);

// How many findings are of this level.
size_t CountOf(const std::vector<Finding>& findings, Finding::Level level);
// A line for each finding, what to do in a line below it, and a line that sums up.
std::string RenderFindings(const std::vector<Finding>& findings);
Json DescribeFindings(const std::vector<Finding>& findings);

}  // namespace vigilactl

#endif  // VIGILACTL_DOCTOR_H_
