#ifndef TESTS_INTEGRATION_SOAK_DROPPED_LOG_H_
#define TESTS_INTEGRATION_SOAK_DROPPED_LOG_H_

#include <string>

#include "tevra/core/logger.h"

namespace soak {

// A daemon that is killed on purpose fills no screen.
class DroppedLog final : public tevra::core::Logger::Sink {
 public:
  DroppedLog() { tevra::core::Logger::SetSink(this); }
  ~DroppedLog() override { tevra::core::Logger::SetSink(nullptr); }
  void Write(tevra::core::Logger::Level, const std::string&, const std::string&) override {}
};

}  // namespace soak

#endif  // TESTS_INTEGRATION_SOAK_DROPPED_LOG_H_
