#ifndef VIGILA_CONTRACT_RULES_H_
#define VIGILA_CONTRACT_RULES_H_

#include "vigila/contract/permissions.h"

// The paths that every device has access rules for, and the rules as delivered.
namespace vigila::contract {

inline constexpr char kInjectCgiPath[] = "/inject.cgi";
inline constexpr char kSystemPath[] = "/system";
inline constexpr char kControlPath[] = "/control/*";
inline constexpr char kOnvifPath[] = "/onvif/*";
inline constexpr char kInstrumentCgiPath[] = "/halvard-instrument/cgi/*";
inline constexpr char kJpegPath[] = "/jpeg*";
inline constexpr char kRtspPath[] = "/rtsp/*";
inline constexpr char kWebSocketPath[] = "/ws/*";

// Rules are texts: this one, "@" and a group's name, or a permission's identifier. Everything else
// refuses everyone.
inline constexpr char kOpenToEveryone[] = "true";
inline constexpr char kAdministratorsOnly[] = "@admins";

struct Rule {
  const char* path;
  const char* value;
  const char* setting;  // where the platform settings keep the changed rule; null for a fixed one
};

// In order of their paths.
inline constexpr Rule kRules[] = {
    {kControlPath, kControlAccess, nullptr},
    {kInstrumentCgiPath, kApiAccess, nullptr},
    {kInjectCgiPath, kAdministratorsOnly, nullptr},
    {kJpegPath, kReadMedia, "rule.jpeg"},
    {kOnvifPath, kApiAccess, nullptr},
    {kRtspPath, kReadMedia, "rule.rtsp"},
    {kSystemPath, kOpenToEveryone, nullptr},
    {kWebSocketPath, kReadMedia, "rule.web_socket"},
};

}  // namespace vigila::contract

#endif  // VIGILA_CONTRACT_RULES_H_
