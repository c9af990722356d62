#ifndef VIGILA_CHECK_EXPLICIT_TIME_SOURCE_H_
#define VIGILA_CHECK_EXPLICIT_TIME_SOURCE_H_

#include "tevra/osa/time.h"

namespace tevra::check {

// A clock that shows the time it was last given, zero until then. Not synchronised: set it only
// while nothing else reads it.
class ExplicitTimeSource : public osa::ITimeSource {
 public:
  ExplicitTimeSource();
  ~ExplicitTimeSource() override;

  void GetTime(osa::TimeStruct& now) const override;
  virtual void SetTime(const osa::TimeStruct& now);

 private:
  osa::TimeStruct now_;
};

}  // namespace tevra::check

#endif  // VIGILA_CHECK_EXPLICIT_TIME_SOURCE_H_
