#ifndef TEVRA_MSGBUS_BUS_ERROR_H_
#define TEVRA_MSGBUS_BUS_ERROR_H_

namespace tevra::msgbus {

// Names of error answers, as every D-Bus service uses them.
struct BusError {
  static constexpr const char* kFailed = "org.freedesktop.DBus.Error.Failed";
  static constexpr const char* kNotSupported = "org.freedesktop.DBus.Error.NotSupported";
  static constexpr const char* kUnknownMethod = "org.freedesktop.DBus.Error.UnknownMethod";
  static constexpr const char* kInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
  static constexpr const char* kAccessDenied = "org.freedesktop.DBus.Error.AccessDenied";
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_BUS_ERROR_H_
