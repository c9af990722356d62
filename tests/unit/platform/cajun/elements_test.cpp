#include "json/elements.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <string>
#include <type_traits>

namespace {

using json::Object;
using json::String;
using json::UnknownElement;

// So that what a document holds is overwritten with it.
static_assert(std::is_same_v<const String, Object::value_type::first_type>);
static_assert(std::is_same_v<String, UnknownElement::string_t>);

TEST(JsonString, OverwritesATextThatGoes) {
  alignas(String) unsigned char memory[sizeof(String)] = {};
  // Short: the bytes are in the object itself and stay readable.
  std::destroy_at(new (memory) String("secret"));
  const volatile unsigned char* left = memory;
  std::string bytes;
  for (size_t i = 0; i < sizeof(memory); ++i) bytes += static_cast<char>(left[i]);
  EXPECT_EQ(std::string::npos, bytes.find("ecret"));
}

TEST(JsonObject, KeepsMembersInTheOrderInWhichTheyCame) {
  Object object;
  for (const char* name : {"z", "a", "m"}) object[name] = json::Null();
  std::string names;
  for (const auto& [name, element] : object) names += name;
  EXPECT_EQ(names, "zam");
}

TEST(JsonObject, FindsMembersByTheirWholeName) {
  const std::string name("a\0b", 3);
  Object object;
  object[name] = json::Number(1);
  EXPECT_EQ(json::FindMember(object, "a"), nullptr);
  ASSERT_NE(json::FindMember(object, name), nullptr);
  EXPECT_EQ(*json::FindMember(object, name), 1);
}

TEST(JsonObject, ThrowsForAMemberThatItHasNot) {
  Object object;
  object["x"] = json::Boolean(true);
  EXPECT_EQ(json::Member(object, "x"), true);
  try {
    json::Member(object, "y");
    FAIL();
  } catch (const json::Exception& error) {
    EXPECT_STREQ(error.what(), "the object has no such member: y");
  }
  EXPECT_EQ(object.size(), 1U);
}

}  // namespace
