#ifndef VIGILA_SERVER_ADMINISTRATION_ADMINISTRATION_ENDPOINT_H_
#define VIGILA_SERVER_ADMINISTRATION_ADMINISTRATION_ENDPOINT_H_

#include <memory>

#include "vigila/server/administration/administration.h"

namespace vigila::server {

// The bus endpoint of the administration: requests reach it while this exists and the destination's
// name is registered.
class AdministrationEndpoint final {
 public:
  // The environment must outlive the endpoint. Throws a StartFailure when the bus refuses.
  explicit AdministrationEndpoint(ServerEnv& env);
  ~AdministrationEndpoint();
  AdministrationEndpoint(const AdministrationEndpoint&) = delete;
  AdministrationEndpoint& operator=(const AdministrationEndpoint&) = delete;

 private:
  Administration administration_;
  std::unique_ptr<tevra::interfaces::IAdministration::IServer> server_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_ADMINISTRATION_ADMINISTRATION_ENDPOINT_H_
