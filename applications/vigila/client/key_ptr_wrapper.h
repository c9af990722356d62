#ifndef VIGILA_CLIENT_KEY_PTR_WRAPPER_H_
#define VIGILA_CLIENT_KEY_PTR_WRAPPER_H_

namespace vigila::client {

// A command as a map key, ordered by its arguments, among commands and among mere views of
// arguments. Borrows the command.
template <typename T>
class KeyPtrWrapper {
 public:
  explicit KeyPtrWrapper(const T* command) : command_(command) {}
  virtual ~KeyPtrWrapper() = default;

  bool operator<(const KeyPtrWrapper& other) const { return command_->IsLessThan(*other.command_); }
  friend bool operator<(const KeyPtrWrapper& left, const typename T::Key& right) {
    return left.command_->GetKey() < right;
  }
  friend bool operator<(const typename T::Key& left, const KeyPtrWrapper& right) {
    return left < right.command_->GetKey();
  }

 private:
  const T* command_;
};

}  // namespace vigila::client

#endif  // VIGILA_CLIENT_KEY_PTR_WRAPPER_H_
