#include "vigilactl/commands.h"
#include "vigilactl/doctor.h"

namespace vigilactl {
namespace {

ExitCode Doctor(Invocation& invocation) {
  const std::vector<Finding> findings = Diagnose(GatherDoctorFacts(invocation));
  invocation.Answer(DescribeFindings(findings), RenderFindings(findings));
  return CountOf(findings, Finding::Level::kProblem) == 0 ? kDone : kRefused;
}

}  // namespace

void AddDoctorCommand(CLI::App& app, Invocation& invocation) {
  app.add_subcommand("doctor", "Look at what goes wrong in practice, and say what to do")
      ->callback(
          [&invocation] { invocation.Choose([&invocation] { return Doctor(invocation); }); });
}

}  // namespace vigilactl
