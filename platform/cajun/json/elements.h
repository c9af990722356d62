#ifndef JSON_ELEMENTS_H_
#define JSON_ELEMENTS_H_

#include <string.h>

#include <cstddef>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

// JSON documents as values: an UnknownElement holds one of Object, Array, String, Number, Boolean
// and Null, and owns everything below it. Not synchronised. Copying and destroying recurse once for
// each level of nesting, which the reader bounds.
namespace json {

// What every failure of this library is, or derives from.
class Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A value of one type. Texts may be passwords: their memory is overwritten when they go.
template <typename T>
class TrivialType {
 public:
  TrivialType() = default;
  TrivialType(const T& value) : value_(value) {}  // NOLINT(google-explicit-constructor)
  TrivialType(const TrivialType& other) = default;
  TrivialType(TrivialType&& other) noexcept = default;
  TrivialType& operator=(const TrivialType& other) = default;
  TrivialType& operator=(TrivialType&& other) noexcept = default;
  ~TrivialType() {
    if constexpr (std::is_same_v<T, std::string>) {
      value_.resize(value_.capacity());  // the bytes behind the end are old ones
      explicit_bzero(value_.data(), value_.size());
    }
  }

  operator const T&() const { return value_; }  // NOLINT(google-explicit-constructor)
  operator T&() { return value_; }              // NOLINT(google-explicit-constructor)
  const T& Value() const { return value_; }
  T& Value() { return value_; }
  bool operator==(const TrivialType& other) const { return value_ == other.value_; }

 private:
  T value_{};
};

using Number = TrivialType<double>;
using Boolean = TrivialType<bool>;
using String = TrivialType<std::string>;

class Null {
 public:
  bool operator==(const Null&) const { return true; }
};

class Array;
class Object;

// Tells which type an element has.
class ConstVisitor {
 public:
  virtual ~ConstVisitor() = default;
  virtual void Visit(const Array& array) = 0;
  virtual void Visit(const Object& object) = 0;
  virtual void Visit(const Number& number) = 0;
  virtual void Visit(const String& string) = 0;
  virtual void Visit(const Boolean& boolean) = 0;
  virtual void Visit(const Null& null) = 0;
};

// An element of any type, Null when new. A const element cast to a type that it does not hold
// throws Exception; a mutable one becomes an empty value of that type, so that
// `document["Users"]["0"] = …` builds what it names. Read documents through const references.
class UnknownElement {
 public:
  UnknownElement();
  UnknownElement(const UnknownElement& other);
  UnknownElement(UnknownElement&& other) noexcept;
  UnknownElement(const Object& object);    // NOLINT(google-explicit-constructor)
  UnknownElement(const Array& array);      // NOLINT(google-explicit-constructor)
  UnknownElement(const Number& number);    // NOLINT(google-explicit-constructor)
  UnknownElement(const Boolean& boolean);  // NOLINT(google-explicit-constructor)
  UnknownElement(const String& string);    // NOLINT(google-explicit-constructor)
  UnknownElement(const Null& null);        // NOLINT(google-explicit-constructor)
  ~UnknownElement();
  UnknownElement& operator=(const UnknownElement& other);
  UnknownElement& operator=(UnknownElement&& other) noexcept;

  operator const Object&() const;   // NOLINT(google-explicit-constructor)
  operator const Array&() const;    // NOLINT(google-explicit-constructor)
  operator const Number&() const;   // NOLINT(google-explicit-constructor)
  operator const Boolean&() const;  // NOLINT(google-explicit-constructor)
  operator const String&() const;   // NOLINT(google-explicit-constructor)
  operator const Null&() const;     // NOLINT(google-explicit-constructor)
  operator Object&();               // NOLINT(google-explicit-constructor)
  operator Array&();                // NOLINT(google-explicit-constructor)
  operator Number&();               // NOLINT(google-explicit-constructor)
  operator Boolean&();              // NOLINT(google-explicit-constructor)
  operator String&();               // NOLINT(google-explicit-constructor)
  operator Null&();                 // NOLINT(google-explicit-constructor)

  // As on the Object or Array that the element is cast to.
  UnknownElement& operator[](const std::string& name);
  const UnknownElement& operator[](const std::string& name) const;
  UnknownElement& operator[](size_t index);
  const UnknownElement& operator[](size_t index) const;

  void Accept(ConstVisitor& visitor) const;
  bool operator==(const UnknownElement& other) const;

 private:
  // Objects and arrays stand behind pointers because they hold elements themselves.
  using ObjectBox = std::unique_ptr<Object>;
  using ArrayBox = std::unique_ptr<Array>;
  using Value = std::variant<Null, Number, Boolean, String, ObjectBox, ArrayBox>;

  template <typename T>
  const T& Get(const char* type) const;
  template <typename T>
  T& Make();

  Value value_;
};

class Array {
 public:
  using Elements = std::deque<UnknownElement>;
  using iterator = Elements::iterator;
  using const_iterator = Elements::const_iterator;

  iterator Begin() { return elements_.begin(); }
  iterator End() { return elements_.end(); }
  const_iterator Begin() const { return elements_.begin(); }
  const_iterator End() const { return elements_.end(); }

  iterator Insert(const UnknownElement& element) {
    return elements_.insert(elements_.end(), element);
  }
  iterator Insert(const UnknownElement& element, iterator before) {
    return elements_.insert(before, element);
  }
  iterator Erase(iterator element) { return elements_.erase(element); }
  void Resize(size_t size) { elements_.resize(size); }
  void Clear() { elements_.clear(); }

  size_t Size() const { return elements_.size(); }
  bool Empty() const { return elements_.empty(); }

  // The mutable one grows the array to hold `index`; the const one throws Exception past the end.
  UnknownElement& operator[](size_t index);
  const UnknownElement& operator[](size_t index) const;
  bool operator==(const Array& other) const { return elements_ == other.elements_; }

 private:
  Elements elements_;
};

// Members in the order in which they were added, each name once.
class Object {
 public:
  struct Member {
    explicit Member(const std::string& member_name,
                    const UnknownElement& member_element = UnknownElement())
        : name(member_name), element(member_element) {}
    bool operator==(const Member& other) const {
      return name == other.name && element == other.element;
    }

    const std::string name;
    UnknownElement element;
  };
  using Members = std::list<Member>;
  using iterator = Members::iterator;
  using const_iterator = Members::const_iterator;

  Object() = default;
  Object(const Object& other) : members_(other.members_) { BuildIndex(); }
  Object(Object&& other) noexcept = default;
  Object& operator=(const Object& other) {
    if (this != &other) *this = Object(other);
    return *this;
  }
  Object& operator=(Object&& other) noexcept = default;

  iterator Begin() { return members_.begin(); }
  iterator End() { return members_.end(); }
  const_iterator Begin() const { return members_.begin(); }
  const_iterator End() const { return members_.end(); }

  iterator Find(std::string_view name);
  const_iterator Find(std::string_view name) const;
  // Throws Exception when there is a member of that name already.
  iterator Insert(const Member& member);
  iterator Erase(iterator member);
  void Clear();

  size_t Size() const { return members_.size(); }
  bool Empty() const { return members_.empty(); }

  // The mutable one adds a missing member, Null; the const one throws Exception.
  UnknownElement& operator[](const std::string& name);
  const UnknownElement& operator[](const std::string& name) const;
  bool operator==(const Object& other) const { return members_ == other.members_; }

 private:
  void BuildIndex();

  Members members_;
  // Keys are the members' own names. Without it a request of many names would cost their square.
  std::map<std::string_view, iterator> index_;
};

inline UnknownElement& Array::operator[](size_t index) {
  if (index >= elements_.size()) elements_.resize(index + 1);
  return elements_[index];
}

inline const UnknownElement& Array::operator[](size_t index) const {
  if (index >= elements_.size()) throw Exception("index past the end of the array");
  return elements_[index];
}

inline void Object::BuildIndex() {
  index_.clear();
  for (iterator i = members_.begin(); i != members_.end(); ++i) index_.emplace(i->name, i);
}

inline Object::iterator Object::Find(std::string_view name) {
  const auto found = index_.find(name);
  return found == index_.end() ? members_.end() : found->second;
}

inline Object::const_iterator Object::Find(std::string_view name) const {
  const auto found = index_.find(name);
  return found == index_.end() ? members_.end() : const_iterator(found->second);
}

inline Object::iterator Object::Insert(const Member& member) {
  if (index_.count(member.name) != 0) throw Exception("the object has this member: " + member.name);
  const iterator added = members_.insert(members_.end(), member);
  index_.emplace(added->name, added);
  return added;
}

inline Object::iterator Object::Erase(iterator member) {
  index_.erase(member->name);
  return members_.erase(member);
}

inline void Object::Clear() {
  index_.clear();
  members_.clear();
}

inline UnknownElement& Object::operator[](const std::string& name) {
  const iterator found = Find(name);
  return (found == members_.end() ? Insert(Member(name)) : found)->element;
}

inline const UnknownElement& Object::operator[](const std::string& name) const {
  const const_iterator found = Find(name);
  if (found == members_.end()) throw Exception("the object has no such member: " + name);
  return found->element;
}

inline UnknownElement::UnknownElement() = default;
inline UnknownElement::UnknownElement(UnknownElement&& other) noexcept = default;
inline UnknownElement::~UnknownElement() = default;
inline UnknownElement& UnknownElement::operator=(UnknownElement&& other) noexcept = default;

inline UnknownElement::UnknownElement(const Object& object)
    : value_(std::make_unique<Object>(object)) {}
inline UnknownElement::UnknownElement(const Array& array)
    : value_(std::make_unique<Array>(array)) {}
inline UnknownElement::UnknownElement(const Number& number) : value_(number) {}
inline UnknownElement::UnknownElement(const Boolean& boolean) : value_(boolean) {}
inline UnknownElement::UnknownElement(const String& string) : value_(string) {}
inline UnknownElement::UnknownElement(const Null& null) : value_(null) {}

inline UnknownElement::UnknownElement(const UnknownElement& other) {
  struct Copier final : ConstVisitor {
    explicit Copier(Value& copy) : value(copy) {}
    void Visit(const Array& array) override { value = std::make_unique<Array>(array); }
    void Visit(const Object& object) override { value = std::make_unique<Object>(object); }
    void Visit(const Number& number) override { value = number; }
    void Visit(const String& string) override { value = string; }
    void Visit(const Boolean& boolean) override { value = boolean; }
    void Visit(const Null& null) override { value = null; }
    Value& value;
  };
  Copier copier(value_);
  other.Accept(copier);
}

inline UnknownElement& UnknownElement::operator=(const UnknownElement& other) {
  // By way of a copy: `other` may be a part of this element.
  if (this != &other) *this = UnknownElement(other);
  return *this;
}

template <typename T>
const T& UnknownElement::Get(const char* type) const {
  if constexpr (std::is_same_v<T, Object> || std::is_same_v<T, Array>) {
    if (const auto* box = std::get_if<std::unique_ptr<T>>(&value_); box && *box) return **box;
  } else {
    if (const T* value = std::get_if<T>(&value_)) return *value;
  }
  throw Exception(std::string("the element is no ") + type);
}

template <typename T>
T& UnknownElement::Make() {
  if constexpr (std::is_same_v<T, Object> || std::is_same_v<T, Array>) {
    auto* box = std::get_if<std::unique_ptr<T>>(&value_);
    if (box && *box) return **box;
    return *value_.emplace<std::unique_ptr<T>>(std::make_unique<T>());
  } else {
    if (T* value = std::get_if<T>(&value_)) return *value;
    return value_.emplace<T>();
  }
}

inline UnknownElement::operator const Object&() const {
  return Get<Object>("object");
}
inline UnknownElement::operator const Array&() const {
  return Get<Array>("array");
}
inline UnknownElement::operator const Number&() const {
  return Get<Number>("number");
}
inline UnknownElement::operator const Boolean&() const {
  return Get<Boolean>("boolean");
}
inline UnknownElement::operator const String&() const {
  return Get<String>("string");
}
inline UnknownElement::operator const Null&() const {
  return Get<Null>("null");
}
inline UnknownElement::operator Object&() {
  return Make<Object>();
}
inline UnknownElement::operator Array&() {
  return Make<Array>();
}
inline UnknownElement::operator Number&() {
  return Make<Number>();
}
inline UnknownElement::operator Boolean&() {
  return Make<Boolean>();
}
inline UnknownElement::operator String&() {
  return Make<String>();
}
inline UnknownElement::operator Null&() {
  return Make<Null>();
}

inline UnknownElement& UnknownElement::operator[](const std::string& name) {
  return Make<Object>()[name];
}
inline const UnknownElement& UnknownElement::operator[](const std::string& name) const {
  return Get<Object>("object")[name];
}
inline UnknownElement& UnknownElement::operator[](size_t index) {
  return Make<Array>()[index];
}
inline const UnknownElement& UnknownElement::operator[](size_t index) const {
  return Get<Array>("array")[index];
}

inline void UnknownElement::Accept(ConstVisitor& visitor) const {
  // A moved-from object or array has nothing in its box and counts as Null.
  if (const auto* object = std::get_if<ObjectBox>(&value_)) {
    *object ? visitor.Visit(**object) : visitor.Visit(Null());
  } else if (const auto* array = std::get_if<ArrayBox>(&value_)) {
    *array ? visitor.Visit(**array) : visitor.Visit(Null());
  } else if (const Number* number = std::get_if<Number>(&value_)) {
    visitor.Visit(*number);
  } else if (const Boolean* boolean = std::get_if<Boolean>(&value_)) {
    visitor.Visit(*boolean);
  } else if (const String* string = std::get_if<String>(&value_)) {
    visitor.Visit(*string);
  } else {
    visitor.Visit(std::get<Null>(value_));
  }
}

inline bool UnknownElement::operator==(const UnknownElement& other) const {
  if (value_.index() != other.value_.index()) return false;
  if (const auto* object = std::get_if<ObjectBox>(&value_)) {
    const ObjectBox& theirs = std::get<ObjectBox>(other.value_);
    return *object && theirs ? **object == *theirs : !*object && !theirs;
  }
  if (const auto* array = std::get_if<ArrayBox>(&value_)) {
    const ArrayBox& theirs = std::get<ArrayBox>(other.value_);
    return *array && theirs ? **array == *theirs : !*array && !theirs;
  }
  return value_ == other.value_;
}

}  // namespace json

#endif  // JSON_ELEMENTS_H_
