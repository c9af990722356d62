#include "json/elements.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <string>
#include <utility>

namespace {

using namespace json;  // NOLINT(google-build-using-namespace)

Object Account() {
  Object account;
  account["Name"] = String("alice");
  account["Group"] = Number(8);
  return account;
}

TEST(JsonElement, OverwritesATextThatGoes) {
  alignas(String) unsigned char memory[sizeof(String)] = {};
  // Short: the bytes are in the object itself and stay readable.
  std::destroy_at(new (memory) String("secret"));
  const volatile unsigned char* left = memory;
  std::string bytes;
  for (size_t i = 0; i < sizeof(memory); ++i) bytes += static_cast<char>(left[i]);
  EXPECT_EQ(std::string::npos, bytes.find("ecret"));
}

TEST(JsonElement, IsNullWhenNew) {
  const UnknownElement element;
  EXPECT_NO_THROW(static_cast<void>(static_cast<const Null&>(element)));
  EXPECT_THROW(static_cast<void>(static_cast<const Object&>(element)), Exception);
}

TEST(JsonElement, ThrowsWhenAConstOneIsCastToAnotherType) {
  const UnknownElement elements[] = {Object(),  Array(),       String("x"),
                                     Number(1), Boolean(true), Null()};
  int right = 0;
  const auto count = [&right](auto cast) {
    try {
      cast();
      ++right;
    } catch (const Exception&) {
    }
  };
  for (const UnknownElement& e : elements) {
    count([&e] { static_cast<void>(static_cast<const Object&>(e)); });
    count([&e] { static_cast<void>(static_cast<const Array&>(e)); });
    count([&e] { static_cast<void>(static_cast<const String&>(e)); });
    count([&e] { static_cast<void>(static_cast<const Number&>(e)); });
    count([&e] { static_cast<void>(static_cast<const Boolean&>(e)); });
    count([&e] { static_cast<void>(static_cast<const Null&>(e)); });
  }
  EXPECT_EQ(right, 6);
}

TEST(JsonElement, BecomesTheTypeThatAMutableOneIsCastTo) {
  UnknownElement element = Number(3);
  String& text = element;
  EXPECT_EQ(text.Value(), "");
  text = String("x");
  const UnknownElement& read = element;
  EXPECT_EQ(static_cast<const String&>(read).Value(), "x");
}

TEST(JsonElement, CopiesDeeply) {
  UnknownElement original = Account();
  const UnknownElement copy = original;
  original["Name"] = String("bob");
  EXPECT_EQ(static_cast<const String&>(copy["Name"]).Value(), "alice");
  EXPECT_FALSE(copy == original);
}

TEST(JsonElement, TakesAPartOfItselfInItsOwnPlace) {
  UnknownElement element;
  element["inner"]["value"] = Number(7);
  element = element["inner"];
  const UnknownElement& read = element;
  EXPECT_EQ(static_cast<const Number&>(read["value"]).Value(), 7);
}

TEST(JsonElement, CountsAsNullAfterItWasMovedAway) {
  UnknownElement element = Account();
  const UnknownElement taken = std::move(element);
  EXPECT_EQ(static_cast<const Object&>(taken).Size(), 2U);
  struct Finder final : ConstVisitor {
    void Visit(const Array&) override {}
    void Visit(const Object&) override {}
    void Visit(const Number&) override {}
    void Visit(const String&) override {}
    void Visit(const Boolean&) override {}
    void Visit(const Null&) override { null = true; }
    bool null = false;
  } finder;
  element.Accept(finder);  // NOLINT(bugprone-use-after-move)
  EXPECT_TRUE(finder.null);
  Object& again = element;
  EXPECT_TRUE(again.Empty());
}

TEST(JsonObject, KeepsMembersInTheOrderInWhichTheyCame) {
  Object object;
  for (const char* name : {"z", "a", "m"}) object[name] = Null();
  std::string names;
  for (auto member = object.Begin(); member != object.End(); ++member) names += member->name;
  EXPECT_EQ(names, "zam");
}

TEST(JsonObject, FindsMembersByTheirWholeName) {
  Object object;
  object[std::string("a\0b", 3)] = Number(1);
  EXPECT_EQ(object.Find("a"), object.End());
  EXPECT_NE(object.Find(std::string("a\0b", 3)), object.End());
}

TEST(JsonObject, AddsAMissingMemberOnlyWhenMutable) {
  Object object;
  const Object& read = object;
  EXPECT_THROW(read["x"], Exception);
  EXPECT_EQ(object.Size(), 0U);
  object["x"];
  EXPECT_EQ(object.Size(), 1U);
  EXPECT_NO_THROW(read["x"]);
}

TEST(JsonObject, InsertsANameOnce) {
  Object object;
  object.Insert(Object::Member("x", Number(1)));
  EXPECT_THROW(object.Insert(Object::Member("x", Number(2))), Exception);
  const Object& read = object;
  EXPECT_EQ(static_cast<const Number&>(read["x"]).Value(), 1);
}

TEST(JsonObject, ForgetsErasedMembers) {
  Object object = Account();
  object.Erase(object.Find("Name"));
  EXPECT_EQ(object.Find("Name"), object.End());
  EXPECT_EQ(object.Size(), 1U);
  object.Insert(Object::Member("Name"));
  EXPECT_EQ(object.Size(), 2U);
  object.Clear();
  EXPECT_TRUE(object.Empty());
  EXPECT_EQ(object.Find("Group"), object.End());
}

TEST(JsonObject, StandsOnItsOwnAfterCopyAssignmentAndMove) {
  Object copy;
  copy["old"] = Null();
  {
    const Object original = Account();
    copy = original;
  }
  EXPECT_EQ(copy.Find("old"), copy.End());
  EXPECT_NE(copy.Find("Name"), copy.End());
  Object moved = std::move(copy);
  EXPECT_EQ(moved.Find("Group")->name, "Group");
  moved["More"] = Null();
  EXPECT_EQ(moved.Size(), 3U);
  const Object& same = moved;
  moved = same;
  EXPECT_EQ(moved.Size(), 3U);
}

TEST(JsonObject, HoldsManyMembersInReasonableTime) {
  Object object;
  for (int i = 0; i < 100000; ++i) object[std::to_string(i)] = Number(i);
  EXPECT_EQ(object.Size(), 100000U);
}

TEST(JsonArray, GrowsByInsertingAndByIndex) {
  Array array;
  array.Insert(Number(1));
  array[2] = Number(3);
  EXPECT_EQ(array.Size(), 3U);
  const Array& read = array;
  EXPECT_EQ(static_cast<const Number&>(read[2]).Value(), 3);
  EXPECT_NO_THROW(static_cast<void>(static_cast<const Null&>(read[1])));
  EXPECT_THROW(read[3], Exception);
}

}  // namespace
