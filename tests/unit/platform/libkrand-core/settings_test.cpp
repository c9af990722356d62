#include <gtest/gtest.h>

#include <string>

#include "krand/core/krand_core.h"
#include "settings_tests.h"
#include "support/capturing_log.h"
#include "support/platform_fixture.h"
#include "support/settings_faults.h"
#include "support/settings_fixture.h"

namespace krand::core {
namespace {

using support::CapturingLog;
using support::SettingsFixture;

TEST(Settings, KeepValuesOfEachTypeOverAReopening) {
  SettingsFixture settings;
  settings.PutString("rule.jpeg", "@admins");
  settings.PutJson("user.alice", "{\"Groups\":1}");
  settings.PutArray("oldPasswords.alice", {"one", "", "three"});
  settings.Reopen();
  EXPECT_EQ(settings.GetString("rule.jpeg"), "@admins");
  EXPECT_EQ(settings.GetJson("user.alice"), "{\"Groups\":1}");
  EXPECT_EQ(settings.GetArray("oldPasswords.alice"), (Texts{"one", "", "three"}));
}

TEST(Settings, AnswerAMissingKeyWithANullValue) {
  SettingsFixture settings;
  char* text = const_cast<char*>("untouched");
  char** array = &text;
  size_t count = 7;
  EXPECT_EQ(krand_core_settings_get_string_value("no", &text), KRAND_CORE_OK);
  EXPECT_EQ(text, nullptr);
  text = const_cast<char*>("untouched");
  EXPECT_EQ(krand_core_settings_get_json_value("no", &text), KRAND_CORE_OK);
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(krand_core_settings_get_arrayofstring_value("no", &array, &count), KRAND_CORE_OK);
  EXPECT_EQ(array, nullptr);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(krand_core_settings_does_key_exist("no"), 0);
}

TEST(Settings, TellAnEmptyValueFromAMissingOne) {
  SettingsFixture settings;
  settings.PutString("empty", "");
  settings.PutArray("none", {});
  EXPECT_EQ(settings.GetString("empty"), "");
  EXPECT_EQ(settings.GetArray("none"), Texts{});
  EXPECT_TRUE(settings.Exists("empty"));
  EXPECT_TRUE(settings.Exists("none"));
}

TEST(Settings, RefuseToReadAValueAsAnotherType) {
  SettingsFixture settings;
  settings.PutString("s", "text");
  settings.PutJson("j", "{}");
  settings.PutArray("a", {"x"});
  char* text = const_cast<char*>("untouched");
  char** array = &text;
  size_t count = 7;
  EXPECT_EQ(krand_core_settings_get_json_value("s", &text), KRAND_CORE_WRONG_TYPE);
  EXPECT_EQ(krand_core_settings_get_json_value("a", &text), KRAND_CORE_WRONG_TYPE);
  EXPECT_EQ(krand_core_settings_get_string_value("j", &text), KRAND_CORE_WRONG_TYPE);
  EXPECT_EQ(krand_core_settings_get_arrayofstring_value("s", &array, &count),
            KRAND_CORE_WRONG_TYPE);
  EXPECT_STREQ(text, "untouched");
  EXPECT_EQ(array, &text);
  EXPECT_EQ(count, 7u);
}

TEST(Settings, ReplaceAValueOfAnotherType) {
  SettingsFixture settings;
  settings.PutString("key", "text");
  settings.PutArray("key", {"x"});
  EXPECT_EQ(settings.GetArray("key"), Texts{"x"});
  settings.PutJson("key", "{}");
  EXPECT_EQ(settings.GetJson("key"), "{}");
}

TEST(Settings, DeleteAKeyOnceAndSucceedTwice) {
  SettingsFixture settings;
  settings.PutString("key", "text");
  EXPECT_EQ(krand_core_settings_delete_key("key"), KRAND_CORE_OK);
  EXPECT_FALSE(settings.Exists("key"));
  EXPECT_EQ(krand_core_settings_delete_key("key"), KRAND_CORE_OK);
}

TEST(Settings, ListKeysByPrefixInByteOrder) {
  SettingsFixture settings;
  for (const char* key :
       {"user.b", "user.", "user", "user.a", "user/", "user.\xff", "user.\xff\xff", "User.a",
        "\xff", "\xff\xff", "user.a%", "user.a_", "user.B", ""}) {
    settings.PutString(key, "");
  }
  EXPECT_EQ(settings.Keys("user."), (Texts{"user.", "user.B", "user.a", "user.a%", "user.a_",
                                           "user.b", "user.\xff", "user.\xff\xff"}));
  EXPECT_EQ(settings.Keys("user.a_"), Texts{"user.a_"});
  EXPECT_EQ(settings.Keys("user.\xff"), (Texts{"user.\xff", "user.\xff\xff"}));
  EXPECT_EQ(settings.Keys("\xff"), (Texts{"\xff", "\xff\xff"}));
  EXPECT_EQ(settings.Keys("nothing"), Texts{});
  EXPECT_EQ(settings.Keys("").size(), 14u);
  EXPECT_EQ(settings.Keys("").front(), "");
}

TEST(Settings, CarryAnyBytesButZeroInKeysAndValues) {
  SettingsFixture settings;
  std::string bytes;
  for (int c = 1; c < 256; ++c) bytes.push_back(static_cast<char>(c));
  settings.PutString(bytes, bytes);
  settings.PutArray(bytes + "a", {bytes, bytes});
  settings.Reopen();
  EXPECT_EQ(settings.GetString(bytes), bytes);
  EXPECT_EQ(settings.GetArray(bytes + "a"), (Texts{bytes, bytes}));
  EXPECT_EQ(settings.Keys("\x01"), (Texts{bytes, bytes + "a"}));
}

TEST(Settings, CarryAValueOfSixteenMebibytes) {
  SettingsFixture settings;
  const std::string large(16u << 20, 'x');
  settings.PutString("large", large);
  settings.Reopen();
  EXPECT_EQ(settings.GetString("large"), large);
}

TEST(Settings, CarryTenThousandKeys) {
  SettingsFixture settings;
  ASSERT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
  for (int i = 0; i < 10000; ++i) settings.PutString("k" + std::to_string(i), "v");
  ASSERT_EQ(krand_core_settings_commit(), KRAND_CORE_OK);
  EXPECT_EQ(settings.Keys("k").size(), 10000u);
  EXPECT_EQ(settings.Keys("k99").size(), 111u);
}

TEST(Settings, RefuseNullArguments) {
  SettingsFixture settings;
  char* text = nullptr;
  char** array = nullptr;
  size_t count = 0;
  EXPECT_EQ(krand_core_settings_get_string_value(nullptr, &text), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_get_string_value("k", nullptr), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_set_string_value(nullptr, "v"), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_set_string_value("k", nullptr), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_get_json_value(nullptr, &text), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_get_json_value("k", nullptr), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_set_json_value(nullptr, "v"), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_set_json_value("k", nullptr), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_get_arrayofstring_value(nullptr, &array, &count),
            KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_get_arrayofstring_value("k", nullptr, &count),
            KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_get_arrayofstring_value("k", &array, nullptr), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_settings_set_arrayofstring_value(nullptr, &text),
            KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_set_arrayofstring_value("k", nullptr), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_delete_key(nullptr), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_does_key_exist(nullptr), -1);
  EXPECT_EQ(krand_core_settings_get_keys_starting_with(nullptr), nullptr);
}

void ExpectNotInitialized() {
  char* text = nullptr;
  char** array = nullptr;
  size_t count = 0;
  EXPECT_EQ(krand_core_settings_get_string_value("k", &text), KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_set_string_value("k", "v"), KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_get_json_value("k", &text), KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_set_json_value("k", "v"), KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_get_arrayofstring_value("k", &array, &count),
            KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_set_arrayofstring_value("k", &text), KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_delete_key("k"), KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_does_key_exist("k"), -1);
  EXPECT_EQ(krand_core_settings_get_keys_starting_with(""), nullptr);
  EXPECT_EQ(krand_core_settings_begin(), KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_commit(), KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_rollback(), KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_deinit(), KRAND_CORE_NOT_INITIALIZED);
}

TEST(Settings, RefuseCallsBeforeInit) {
  EXPECT_STREQ(krand_core_settings_location(), "");
  ExpectNotInitialized();
}

TEST(Settings, RefuseCallsAfterDeinit) {
  SettingsFixture settings;
  settings.Close();
  EXPECT_STREQ(krand_core_settings_location(), "");
  ExpectNotInitialized();
}

TEST(Settings, RefuseASecondInitAndKeepTheFirst) {
  SettingsFixture settings;
  settings.PutString("key", "text");
  CapturingLog log;
  EXPECT_EQ(krand_core_settings_init("vigila"), KRAND_CORE_ERROR);
  EXPECT_EQ(krand_core_settings_init("other"), KRAND_CORE_ERROR);
  EXPECT_EQ(settings.GetString("key"), "text");
  EXPECT_EQ(krand_core_settings_location(), settings.File());
}

TEST(Settings, RefuseDomainsThatAreNoFileName) {
  support::PlatformFixture platform;
  for (const char* domain : {"", ".", "..", ".hidden", "a/b", "../a", "a b", "a\n", "\xc3\xa4"}) {
    EXPECT_EQ(krand_core_settings_init(domain), KRAND_CORE_INVALID_ARGUMENT) << domain;
  }
  EXPECT_EQ(krand_core_settings_init(nullptr), KRAND_CORE_INVALID_ARGUMENT);
}

TEST(Settings, KeepDomainsApart) {
  SettingsFixture settings;
  settings.PutString("key", "text");
  settings.Close();
  ASSERT_EQ(krand_core_settings_init("other"), KRAND_CORE_OK);
  EXPECT_FALSE(settings.Exists("key"));
  settings.Reopen();
  EXPECT_EQ(krand_core_settings_location(), settings.File());
  EXPECT_EQ(settings.GetString("key"), "text");
}

TEST(Settings, FlushOncePerTransaction) {
  SettingsFixture settings;
  const unsigned long before = krand_core_settings_write_count();
  settings.PutString("a", "1");
  EXPECT_EQ(krand_core_settings_write_count(), before + 1);
  ASSERT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
  for (int i = 0; i < 20; ++i) settings.PutString("k" + std::to_string(i), "v");
  EXPECT_EQ(krand_core_settings_write_count(), before + 1);
  ASSERT_EQ(krand_core_settings_commit(), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_settings_write_count(), before + 2);
}

TEST(Settings, FlushNothingWhereNothingChanges) {
  SettingsFixture settings;
  const unsigned long before = krand_core_settings_write_count();
  settings.Delete("no such key");
  ASSERT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
  ASSERT_EQ(krand_core_settings_commit(), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_settings_write_count(), before);
}

}  // namespace
}  // namespace krand::core
