#include "vigila/check/explicit_time_source.h"

namespace tevra::check {

ExplicitTimeSource::ExplicitTimeSource() = default;
ExplicitTimeSource::~ExplicitTimeSource() = default;

void ExplicitTimeSource::GetTime(osa::TimeStruct& now) const {
  now = now_;
}

void ExplicitTimeSource::SetTime(const osa::TimeStruct& now) {
  now_ = now;
}

}  // namespace tevra::check
