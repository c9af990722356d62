#include "tevra/core/config_key.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

namespace {

using tevra::core::ConfigKey;

const ConfigKey kOwn{"a section", "a name", "a fallback"};

TEST(ConfigKey, IsAmongAllThatTheProcessReads) {
  const std::vector<const ConfigKey*> keys = ConfigKey::All();
  EXPECT_EQ(std::count(keys.begin(), keys.end(), &kOwn), 1);
  EXPECT_STREQ(kOwn.section(), "a section");
  EXPECT_STREQ(kOwn.name(), "a name");
  EXPECT_STREQ(kOwn.fallback(), "a fallback");
}

TEST(ConfigKey, OfALibraryIsThereAsSoonAsTheLibraryIs) {
  std::set<std::string> names;
  for (const ConfigKey* key : ConfigKey::All()) {
    names.insert(std::string(key->section()) + "/" + key->name());
  }
  EXPECT_TRUE(names.contains("Logging/level"));
  EXPECT_TRUE(names.contains("MsgBus/runtime_dir"));
  EXPECT_TRUE(names.contains("Access/admin_groups"));
}

}  // namespace
