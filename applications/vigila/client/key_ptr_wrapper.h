#ifndef VIGILA_CLIENT_KEY_PTR_WRAPPER_H_
#define VIGILA_CLIENT_KEY_PTR_WRAPPER_H_

namespace vigila::client {

// A command as a map key, ordered by its arguments. Borrows the command.
template <typename T>
class KeyPtrWrapper {
 public:
  explicit KeyPtrWrapper(const T* command) : command_(command) {}
  virtual ~KeyPtrWrapper() = default;

  bool operator<(const KeyPtrWrapper& other) const { return command_->IsLessThan(*other.command_); }

 private:
  const T* command_;
};

}  // namespace vigila::client

#endif  // VIGILA_CLIENT_KEY_PTR_WRAPPER_H_
