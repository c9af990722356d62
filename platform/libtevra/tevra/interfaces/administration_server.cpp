#include "tevra/interfaces/i_administration.h"
#include "tevra/interfaces/operation_server.h"

namespace tevra::interfaces {

// A caller travels as the token; the rest the bus knows.
template <>
struct WireType<IAdministration::Caller> {
  static constexpr char kLetter = 's';
  static IAdministration::Caller Get(const Call& call, size_t index) {
    IAdministration::Caller caller(WireType<std::string>::Get(call, index));
    caller.holds_admin_role = call.roles.Holds(call.request.Sender(), msgbus::CallerRoles::kAdmin);
    return caller;
  }
};

namespace {

template <auto method>
constexpr auto Offer(const char* name, std::string_view names, Cost cost = Cost::kCheap) {
  return Serve<method>(name, names, Audience::kEither, cost);
}

constexpr Operation<IAdministration> kOperations[] = {
    Offer<&IAdministration::GetAccounts>("GetAccounts", "token cursor limit -> answer"),
    Offer<&IAdministration::GetAccount>("GetAccount", "token name -> answer"),
    Offer<&IAdministration::UnlockAccount>("UnlockAccount", "token name -> answer", Cost::kDear),
    Offer<&IAdministration::GetSessions>("GetSessions", "token user cursor limit -> answer"),
    Offer<&IAdministration::EndSession>("EndSession", "token identifier -> answer"),
    Offer<&IAdministration::EndSessions>("EndSessions", "token user spare -> answer"),
    Offer<&IAdministration::SetSessionSource>("SetSessionSource", "token address -> answer"),
    Offer<&IAdministration::ExplainAccount>("ExplainAccount", "token name path -> answer"),
    Offer<&IAdministration::ExplainSession>("ExplainSession", "token session path -> answer"),
    Offer<&IAdministration::GetRuleEffect>("GetRuleEffect", "token path rule -> answer"),
    Offer<&IAdministration::CheckPassword>("CheckPassword", "token name proposed -> answer",
                                           Cost::kDear),
    Offer<&IAdministration::ChangePassword>("ChangePassword", "token present proposed -> answer",
                                            Cost::kDear),
    Offer<&IAdministration::StartBackup>("StartBackup", "token passphrase -> answer", Cost::kDear),
    Offer<&IAdministration::GetBackup>("GetBackup", "token identifier offset -> answer",
                                       Cost::kDear),
    Offer<&IAdministration::PutBackup>("PutBackup", "token identifier offset bytes -> answer",
                                       Cost::kDear),
    Offer<&IAdministration::StartRestore>("StartRestore", "token identifier passphrase -> answer",
                                          Cost::kDear),
    Offer<&IAdministration::GetRestorePlan>("GetRestorePlan", "token identifier -> answer",
                                            Cost::kDear),
    Offer<&IAdministration::CommitRestore>("CommitRestore", "token identifier -> answer",
                                           Cost::kDear),
};

msgbus::ServedInterface DescriptionWith(const IAdministration::Counters& counters) {
  msgbus::ServedInterface served = DescriptionOf(kOperations, IAdministration::kInterface);
  served.counters.push_back({"Accounts", counters.accounts});
  served.counters.push_back({"Sessions", counters.sessions});
  return served;
}

class AdministrationServer final : public IAdministration::IServer {
 public:
  AdministrationServer(msgbus::IMsgBus* bus, IAdministration* administration,
                       const IAdministration::Counters& counters)
      : operations_(bus, administration, DescriptionWith(counters), kOperations,
                    core::Logger::GetLogger("AdministrationServer")) {}

  uint64_t RefusedCalls() const override { return operations_.RefusedCalls(); }

 private:
  OperationServer<IAdministration> operations_;
};

}  // namespace

msgbus::ServedInterface IAdministration::Description() {
  return DescriptionWith({});
}

IAdministration::IServer* IAdministration::CreateServer(msgbus::IMsgBus* bus,
                                                        IAdministration* administration,
                                                        const Counters& counters) {
  return new AdministrationServer(bus, administration, counters);
}

}  // namespace tevra::interfaces
