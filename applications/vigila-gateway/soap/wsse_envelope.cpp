#include "vigila-gateway/soap/wsse_envelope.h"

namespace vigila::gateway {
namespace {

constexpr std::string_view kDigestType = "#PasswordDigest";

// The reader stops at the end of the security header, whose element is then still named, and at
// anything malformed.
bool HeaderEnded(const client::VigilaXml& reader) {
  return reader.Stopped() && reader.Result() == 0 && reader.ElementWithoutNs() == "Security";
}

// Not looked at: no one shall get used to sending one. A password without a type is one, by the
// standard's default.
bool HasPasswordInClear(const client::VigilaXml& reader) {
  if (reader.Type() == nullptr) return reader.Password() != nullptr;
  return !std::string_view(reader.Type()).ends_with(kDigestType);
}

}  // namespace

WsseEnvelope::Content WsseEnvelope::Judge() const {
  const bool any = reader_.Username() != nullptr || reader_.Password() != nullptr ||
                   reader_.Nonce() != nullptr || reader_.Created() != nullptr;
  const bool all = reader_.Username() != nullptr && reader_.Password() != nullptr &&
                   reader_.Nonce() != nullptr && reader_.Created() != nullptr;
  if (!reader_.Stopped()) return reader_.Result() != 2 && !any ? kNoLogon : kMalformed;
  if (!HeaderEnded(reader_)) return kMalformed;
  if (!any || HasPasswordInClear(reader_)) return kNoLogon;
  return all ? kLogon : kMalformed;
}

WsseLogon WsseEnvelope::Logon() const {
  return {reader_.Username(), reader_.Password(), reader_.Nonce(), reader_.Created()};
}

}  // namespace vigila::gateway
