#ifndef VIGILACTL_INVOCATION_H_
#define VIGILACTL_INVOCATION_H_

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

#include "krand/interfaces/permission_initiator.h"
#include "tevra/interfaces/i_administration.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/msgbus/msg_bus.h"
#include "vigilactl/exit_code.h"

namespace vigilactl {

using Json = nlohmann::ordered_json;

// One run of the program: the options that hold for every verb, the verb that the command line
// chose, the connections it asks for (opened on first use) and where its answer goes.
//
// Every answer has two forms: a text for people, and with --json one JSON object on one line.
class Invocation final {
 public:
  using Verb = std::function<ExitCode()>;

  Invocation(std::ostream& out, std::ostream& err) : out_(out), err_(err) {}
  ~Invocation();
  Invocation(const Invocation&) = delete;
  Invocation& operator=(const Invocation&) = delete;

  bool json = false;        // --json
  std::string config_file;  // --config

  void Choose(Verb verb) { verb_ = std::move(verb); }
  // Makes --config, or the default, the configuration that the connections are opened by. Throws
  // UsageError when it cannot be read.
  void Configure() const;
  // Runs the chosen verb; turns every exception into its message and its exit code.
  ExitCode Run();

  tevra::interfaces::ISecurityProvider& Provider();
  tevra::interfaces::IAdministration& Administration();
  KrandApiPermissionInitiator& Permissions();

  // On whose behalf administration is done: the session token in $VIGILA_TOKEN, or empty, which
  // stands for the caller's own role.
  std::string OnBehalfOf();

  // Columns of the terminal that the answer goes to; as many as there may be, when it goes
  // elsewhere.
  size_t Width() const;

  // The answer of a verb that was done.
  ExitCode Answer(const Json& object, const std::string& text);
  // The answer of a verb that the service refused: `object` plus "Message", or the sentence on the
  // error output.
  ExitCode Refuse(Json object, const std::string& sentence);
  // A failure before any answer: "Exit" and "Message", or the sentence on the error output.
  ExitCode Fail(ExitCode code, const std::string& sentence);
  // Advice beside the answer, for people only.
  void Note(const std::string& sentence);
  // What a person must know before a question; nothing with --json.
  void Show(const std::string& text);
  // A printable question, on the error output.
  void Ask(const std::string& question);

 private:
  tevra::msgbus::MsgBus& Bus();
  void PrintJson(const Json& object);

  std::ostream& out_;
  std::ostream& err_;
  Verb verb_;
  bool on_behalf_ = false;
  // The proxies borrow the bus.
  std::unique_ptr<tevra::msgbus::MsgBus> bus_;
  std::unique_ptr<tevra::interfaces::ISecurityProvider> provider_;
  std::unique_ptr<tevra::interfaces::IAdministration> administration_;
  std::unique_ptr<KrandApiPermissionInitiator> permissions_;
};

}  // namespace vigilactl

#endif  // VIGILACTL_INVOCATION_H_
