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
constexpr auto Offer(const char* name, Cost cost = Cost::kCheap) {
  return Serve<method>(name, Audience::kEither, cost);
}

constexpr Operation<IAdministration> kOperations[] = {
    Offer<&IAdministration::GetAccounts>("GetAccounts"),
    Offer<&IAdministration::GetAccount>("GetAccount"),
    Offer<&IAdministration::UnlockAccount>("UnlockAccount", Cost::kDear),
    Offer<&IAdministration::GetSessions>("GetSessions"),
    Offer<&IAdministration::EndSession>("EndSession"),
    Offer<&IAdministration::EndSessions>("EndSessions"),
    Offer<&IAdministration::SetSessionSource>("SetSessionSource"),
    Offer<&IAdministration::ExplainAccount>("ExplainAccount"),
    Offer<&IAdministration::ExplainSession>("ExplainSession"),
    Offer<&IAdministration::GetRuleEffect>("GetRuleEffect"),
    Offer<&IAdministration::CheckPassword>("CheckPassword", Cost::kDear),
    Offer<&IAdministration::ChangePassword>("ChangePassword", Cost::kDear),
};

class AdministrationServer final : public IAdministration::IServer {
 public:
  AdministrationServer(msgbus::IMsgBus* bus, IAdministration* administration)
      : operations_(bus, administration, IAdministration::kInterface, kOperations,
                    core::Logger::GetLogger("AdministrationServer")) {}

  uint64_t RefusedCalls() const override { return operations_.RefusedCalls(); }

 private:
  OperationServer<IAdministration> operations_;
};

}  // namespace

std::vector<msgbus::ServedOperation> IAdministration::ServedOperations() {
  return RowsOf(kOperations, kInterface);
}

IAdministration::IServer* IAdministration::CreateServer(msgbus::IMsgBus* bus,
                                                        IAdministration* administration) {
  return new AdministrationServer(bus, administration);
}

}  // namespace tevra::interfaces
