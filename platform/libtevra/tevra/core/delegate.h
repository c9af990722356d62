#ifndef TEVRA_CORE_DELEGATE_H_
#define TEVRA_CORE_DELEGATE_H_

namespace tevra::core {

// A call that somebody else will make. Matches tells whether the delegate belongs to an object, so
// that the object can take its delegates back without keeping pointers to them.
class DelegateBase {
 public:
  virtual ~DelegateBase() = default;
  virtual bool Matches(void* target) const = 0;
};

template <typename A>
class IVoidDelegate1 : public DelegateBase {
 public:
  virtual void Call(const A& argument) = 0;
};

// Calls (target->*method)(argument). `target` is borrowed and must outlive the delegate's use.
template <typename T, typename M, typename A>
class VoidObjectMethodDelegate1 : public IVoidDelegate1<A> {
 public:
  VoidObjectMethodDelegate1(T* target, M method) : target_(target), method_(method) {}

  bool Matches(void* target) const override { return target == static_cast<void*>(target_); }
  void Call(const A& argument) override { (target_->*method_)(argument); }

 private:
  T* const target_;
  const M method_;
};

}  // namespace tevra::core

#endif  // TEVRA_CORE_DELEGATE_H_
