#include "vigila/client/key_ptr_wrapper.h"

#include <gtest/gtest.h>

#include "vigila/client/access_commands.h"

namespace vigila::client {
namespace {

TEST(KeyPtrWrapper, OrdersByTheCommandsItPointsTo) {
  const AuthorizeCommand first("a", "z");
  const AuthorizeCommand equal("a", "z");
  const AuthorizeCommand second("b", "a");
  using Key = KeyPtrWrapper<AuthorizeCommand>;
  EXPECT_TRUE(Key(&first) < Key(&second));
  EXPECT_FALSE(Key(&second) < Key(&first));
  EXPECT_FALSE(Key(&first) < Key(&equal));
  EXPECT_FALSE(Key(&equal) < Key(&first));
}

TEST(KeyPtrWrapper, OrdersAlsoAgainstAMereViewOfArguments) {
  const AuthorizeCommand command("b", "m");
  using Key = KeyPtrWrapper<AuthorizeCommand>;
  EXPECT_TRUE(Key(&command) < (AuthorizeCommand::Key{"b", "n"}));
  EXPECT_FALSE(Key(&command) < (AuthorizeCommand::Key{"b", "m"}));
  EXPECT_FALSE((AuthorizeCommand::Key{"b", "m"}) < Key(&command));
  EXPECT_TRUE((AuthorizeCommand::Key{"a", "z"}) < Key(&command));
}

TEST(KeyPtrWrapper, DoesNotOwnTheCommand) {
  const IsProtectedCommand command("/path");
  { const KeyPtrWrapper<IsProtectedCommand> key(&command); }
  EXPECT_TRUE(command.IsEqual(IsProtectedCommand("/path")));
}

}  // namespace
}  // namespace vigila::client
