#include <optional>
#include <string>

#include "vigila/client/vigila.h"
#include "vigila/client/vigila_client.h"
#include "vigila/client/vigila_xml.h"
#include "vigila/client/vigila_xml_c.h"

static_assert(__cplusplus == 201703L, "compiled as the oldest callers in C++ compile");

std::optional<bool> Cpp17Visit(std::string& token);

// A visit by a caller of the oldest kind; whether memory holds the grant afterwards.
std::optional<bool> Cpp17Visit(std::string& token) {
  const vigila::client::VigilaClient client;
  client.Authenticate("alice", "secret", vigila::client::VigilaClient::kReuseMode, token);
  client.Authorize(token, "/path");
  return client.TryAuthorize(token, "/path");
}
