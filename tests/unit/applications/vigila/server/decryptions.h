#ifndef TESTS_UNIT_SERVER_DECRYPTIONS_H_
#define TESTS_UNIT_SERVER_DECRYPTIONS_H_

namespace vigila::server {

// Private-key operations that this process has done so far, on any thread. They are all the work
// that a refused password costs.
int DecryptionCount();

// While it lives the library fails in all of them, or ends the process.
class FailingDecryptions final {
 public:
  enum How { kWithAnError, kWithAnAbort };

  explicit FailingDecryptions(How how = kWithAnError);
  ~FailingDecryptions();
  FailingDecryptions(const FailingDecryptions&) = delete;
  FailingDecryptions& operator=(const FailingDecryptions&) = delete;
};

}  // namespace vigila::server

#endif  // TESTS_UNIT_SERVER_DECRYPTIONS_H_
