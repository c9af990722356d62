#ifndef VIGILA_MODEL_USER_H_
#define VIGILA_MODEL_USER_H_

#include <memory>
#include <set>
#include <string>

#include "tevra/interfaces/i_security_provider.h"
#include "tevra/osa/time.h"
#include "utilc/uuid.h"

namespace vigila::model {

using tevra::interfaces::ISecurityProvider;

// One account as sessions hold it and rules judge it. Handed around by pointer and deleted through
// it. Not synchronised: session state (last access, reusable) changes only under the session
// manager's lock, everything else is constant after construction. Constructors never throw: a
// process without its cryptographic library ends.
class User {
 public:
  // A group and its permissions (not null), one set for all the records made from it.
  struct Rights {
    ISecurityProvider::Group group;
    std::shared_ptr<const std::set<_uuid_t>> permissions;
  };

  static const char* const kAnonymousUsername;
  // Stands for a line break inside stored single-line values.
  static const char* const kNewLineChar;

  User(const std::string& name, const std::string& digest, const ISecurityProvider::Group& group,
       const std::set<_uuid_t>& permissions) noexcept;
  User(const std::string& name, const std::string& digest, const Rights& rights) noexcept;
  User(const User& other) noexcept;
  User& operator=(const User& other);
  virtual ~User();

  const std::string& Name() const { return name_; }
  const std::string& Digest() const { return digest_; }
  ISecurityProvider::Group GetGroup() const { return rights_.group; }
  const std::set<_uuid_t>& Permissions() const { return *rights_.permissions; }

  const tevra::osa::TimeStruct& LastAccess() const { return last_access_; }
  void SetLastAccess(const tevra::osa::TimeStruct& time) { last_access_ = time; }
  bool IsReusable() const { return reusable_; }
  void SetReusable(bool reusable) { reusable_ = reusable; }

  // Tells whether `digest` is this account's, byte for byte; always so for the anonymous account.
  bool CompareHA1(const std::string& digest) const;

  // MD5 of the bytes of `text` as 32 lower-case hexadecimal digits.
  static std::string MD5sum(const std::string& text);
  // `length` bytes as lower-case hexadecimal digits, two each.
  static std::string ToHex(const unsigned char* bytes, unsigned long length);

 private:
  std::string name_;
  std::string digest_;
  Rights rights_;
  tevra::osa::TimeStruct last_access_;
  bool reusable_ = false;
};

}  // namespace vigila::model

#endif  // VIGILA_MODEL_USER_H_
