// The JSON document model: UnknownElement, a value of one of six kinds, and the containers
// Object and Array built from it.
//
// A document is a tree owned by its root; copies are deep. Nothing here is shared between
// documents, so threads may use separate documents freely; one document is not safe for
// concurrent modification.
#ifndef DOVA_JSON_ELEMENTS_H_
#define DOVA_JSON_ELEMENTS_H_

#include <algorithm>
#include <cstddef>
#include <deque>
#include <iterator>
#include <list>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace dova::json {

// Base of every error the JSON documents raise; what() is the message.
class Exception : public std::runtime_error {
 public:
  explicit Exception(const std::string& message) : std::runtime_error(message) {}
};

class Object;
class Array;
class Null;
class Reader;

// Wraps one plain value as a JSON kind. Conversions both ways are implicit so that a Number
// reads and writes like the double it holds.
template <typename DataTypeT>
class TrivialType_T {
 public:
  TrivialType_T(DataTypeT data = DataTypeT()) : data_(std::move(data)) {}  // NOLINT: implicit

  operator DataTypeT&() { return data_; }              // NOLINT: implicit
  operator const DataTypeT&() const { return data_; }  // NOLINT: implicit
  DataTypeT& Value() { return data_; }
  const DataTypeT& Value() const { return data_; }

  TrivialType_T& operator=(const DataTypeT& data) {
    data_ = data;
    return *this;
  }

  // For Number this is double ==: NaN equals nothing and 0.0 equals -0.0.
  bool operator==(const TrivialType_T& other) const { return data_ == other.data_; }

 private:
  DataTypeT data_;
};

using Number = TrivialType_T<double>;
using String = TrivialType_T<std::string>;
using Boolean = TrivialType_T<bool>;

// The JSON null: it carries no data, so every Null equals every other.
class Null {
 public:
  bool operator==(const Null&) const { return true; }
};

// Double dispatch over the six kinds: UnknownElement::Accept calls the overload for the kind it
// holds.
class Visitor {
 public:
  virtual ~Visitor() = default;
  virtual void Visit(Array& array) = 0;
  virtual void Visit(Object& object) = 0;
  virtual void Visit(Number& number) = 0;
  virtual void Visit(String& string) = 0;
  virtual void Visit(Boolean& boolean) = 0;
  virtual void Visit(Null& null) = 0;
};

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

// A JSON value of any kind; it always holds exactly one (Null by default).
//
// Access is deliberately asymmetric: through a non-const element (ConvertTo, the non-const
// conversions and operator[]) an element of another kind is silently replaced by the default
// of the requested kind; through a const element (CastTo, the const conversions) a kind
// mismatch throws Exception "Bad cast".
class UnknownElement {
 public:
  // Visiting with CastVisitor_T<T> or ConstCastVisitor_T<T> sets `element` to the held value
  // when the kind is T and leaves it null otherwise: the model's only type test.
  class CastVisitor;
  class ConstCastVisitor;
  template <typename ElementTypeT>
  class CastVisitor_T;
  template <typename ElementTypeT>
  class ConstCastVisitor_T;

  UnknownElement() {}  // NOLINT: storage_ stays unset until a value is held there
  UnknownElement(const UnknownElement& element) { holdCopy(element); }
  UnknownElement(UnknownElement&& element) noexcept { holdTaken(element); }
  UnknownElement(const Object& object);    // NOLINT: implicit
  UnknownElement(Object&& object);         // NOLINT: implicit
  UnknownElement(const Array& array);      // NOLINT: implicit
  UnknownElement(Array&& array);           // NOLINT: implicit
  UnknownElement(const Number& number);    // NOLINT: implicit
  UnknownElement(const String& string);    // NOLINT: implicit
  UnknownElement(String&& string);         // NOLINT: implicit
  UnknownElement(const Boolean& boolean);  // NOLINT: implicit
  UnknownElement(const Null& null);        // NOLINT: implicit
  ~UnknownElement();

  UnknownElement& operator=(const UnknownElement& element);
  UnknownElement& operator=(UnknownElement&& element) noexcept;

  operator const Object&() const { return CastTo<Object>(); }    // NOLINT: implicit
  operator const Array&() const { return CastTo<Array>(); }      // NOLINT: implicit
  operator const Number&() const { return CastTo<Number>(); }    // NOLINT: implicit
  operator const String&() const { return CastTo<String>(); }    // NOLINT: implicit
  operator const Boolean&() const { return CastTo<Boolean>(); }  // NOLINT: implicit
  operator const Null&() const { return CastTo<Null>(); }        // NOLINT: implicit
  operator Object&() { return ConvertTo<Object>(); }             // NOLINT: implicit
  operator Array&() { return ConvertTo<Array>(); }               // NOLINT: implicit
  operator Number&() { return ConvertTo<Number>(); }             // NOLINT: implicit
  operator String&() { return ConvertTo<String>(); }             // NOLINT: implicit
  operator Boolean&() { return ConvertTo<Boolean>(); }           // NOLINT: implicit
  operator Null&() { return ConvertTo<Null>(); }                 // NOLINT: implicit

  // The held value; throws Exception "Bad cast" when the element holds another kind.
  template <typename ElementTypeT>
  const ElementTypeT& CastTo() const;

  // The held value; an element of another kind is first replaced by a default ElementTypeT.
  // Never throws a type error.
  template <typename ElementTypeT>
  ElementTypeT& ConvertTo();

  // Converts to an Object and returns its member `name`, appending a Null one when absent.
  UnknownElement& operator[](const std::string& name);
  const UnknownElement& operator[](const std::string& name) const;
  // Converts to an Array and returns its element `index`, growing the array with Nulls.
  UnknownElement& operator[](size_t index);
  const UnknownElement& operator[](size_t index) const;

  void Accept(ConstVisitor& visitor) const;
  void Accept(Visitor& visitor);

  // Same kind and equal values; Objects compare their members in order.
  bool operator==(const UnknownElement& element) const;
  bool operator!=(const UnknownElement& element) const { return !(*this == element); }

 private:
  class Imp;
  template <typename ElementTypeT>
  class Imp_T;
  class InPlaceCopy;
  class InPlaceMove;
  // The reader builds each value straight into its element.
  friend class Reader;

  // Holders small enough (Number, Boolean, String, Object) live inside the element, in
  // storage_, which saves an allocation per value; an Array's holder is on the heap. Null
  // carries no data and has no holder at all, so default and moved-from elements cost nothing.
  template <typename ElementTypeT>
  static constexpr bool kHeldInPlace =
      std::is_same_v<ElementTypeT, Number> || std::is_same_v<ElementTypeT, Boolean> ||
      std::is_same_v<ElementTypeT, String> || std::is_same_v<ElementTypeT, Object>;

  static Imp& nullHolder();
  Imp& holder() const { return imp_ != nullptr ? *imp_ : nullHolder(); }
  // A holder built in storage_ starts there: Imp is its only base.
  bool heldInPlace() const { return static_cast<const void*>(imp_) == storage_; }

  // REQUIRES for the hold functions: the element holds Null.
  // Builds the holder of an ElementTypeT (not Null) from `arguments`, in place or on the heap.
  template <typename ElementTypeT, typename... ArgumentsT>
  void hold(ArgumentsT&&... arguments);
  void holdCopy(const UnknownElement& element);
  // Takes the other element's value, leaving it Null.
  void holdTaken(UnknownElement& element) noexcept;
  // Destroys the holder, leaving Null.
  void release() noexcept;

  Imp* imp_ = nullptr;
  alignas(std::string) unsigned char storage_[sizeof(void*) + sizeof(std::string)];
};

class UnknownElement::CastVisitor : public Visitor {
 public:
  void Visit(Array&) override {}
  void Visit(Object&) override {}
  void Visit(Number&) override {}
  void Visit(String&) override {}
  void Visit(Boolean&) override {}
  void Visit(Null&) override {}
};

class UnknownElement::ConstCastVisitor : public ConstVisitor {
 public:
  void Visit(const Array&) override {}
  void Visit(const Object&) override {}
  void Visit(const Number&) override {}
  void Visit(const String&) override {}
  void Visit(const Boolean&) override {}
  void Visit(const Null&) override {}
};

template <typename ElementTypeT>
class UnknownElement::CastVisitor_T : public CastVisitor {
 public:
  using CastVisitor::Visit;
  void Visit(ElementTypeT& value) override { element = &value; }

  ElementTypeT* element = nullptr;
};

template <typename ElementTypeT>
class UnknownElement::ConstCastVisitor_T : public ConstCastVisitor {
 public:
  using ConstCastVisitor::Visit;
  void Visit(const ElementTypeT& value) override { element = &value; }

  const ElementTypeT* element = nullptr;
};

// An ordered list of uniquely named members. Members keep their insertion order: the writer
// emits them and equality compares them in that order.
class Object {
 public:
  struct Member {
    Member(const std::string& member_name = std::string(),
           const UnknownElement& member_element = UnknownElement())
        : name(member_name), element(member_element) {}
    Member(std::string&& member_name, UnknownElement&& member_element)
        : name(std::move(member_name)), element(std::move(member_element)) {}

    std::string name;
    UnknownElement element;
  };

  using Members = std::list<Member>;
  using iterator = Members::iterator;
  using const_iterator = Members::const_iterator;

  iterator begin() { return members_.begin(); }
  iterator end() { return members_.end(); }
  const_iterator begin() const { return members_.begin(); }
  const_iterator end() const { return members_.end(); }
  size_t size() const { return members_.size(); }
  bool empty() const { return members_.empty(); }

  // The member named `name` (byte for byte), or end().
  iterator Find(const std::string& name);
  const_iterator Find(const std::string& name) const;

  // Inserts before `where` and returns the new member's position. Throws Exception "Object
  // member already exists: <name>" when the name is taken; the object is then unchanged.
  iterator Insert(const Member& member) { return Insert(member, end()); }
  iterator Insert(const Member& member, iterator where);
  iterator Insert(Member&& member) { return Insert(std::move(member), end()); }
  iterator Insert(Member&& member, iterator where);

  // The member's element; an unknown name is appended as a Null member.
  UnknownElement& operator[](const std::string& name);
  // Throws Exception for an unknown name.
  const UnknownElement& operator[](const std::string& name) const;

  void Clear() { members_.clear(); }

  bool operator==(const Object& object) const;
  bool operator!=(const Object& object) const { return !(*this == object); }

 private:
  // The reader checks member names itself, with an index once objects grow large so that
  // hostile texts cannot make reading quadratic, and parses each value in place.
  friend class Reader;

  // Appends a Null member without looking for its name.
  iterator appendUnchecked(std::string&& name) {
    return members_.emplace(end(), std::move(name), UnknownElement());
  }

  Members members_;
};

// A sequence of elements in a double-ended queue.
class Array {
 public:
  using Elements = std::deque<UnknownElement>;
  using iterator = Elements::iterator;
  using const_iterator = Elements::const_iterator;

  iterator begin() { return elements_.begin(); }
  iterator end() { return elements_.end(); }
  const_iterator begin() const { return elements_.begin(); }
  const_iterator end() const { return elements_.end(); }
  size_t size() const { return elements_.size(); }
  bool empty() const { return elements_.empty(); }

  // Inserts before `where` (at either end this is a push) and returns the new position.
  iterator Insert(const UnknownElement& element) { return Insert(UnknownElement(element), end()); }
  iterator Insert(const UnknownElement& element, iterator where) {
    return Insert(UnknownElement(element), where);
  }
  iterator Insert(UnknownElement&& element) { return Insert(std::move(element), end()); }
  iterator Insert(UnknownElement&& element, iterator where);

  // Grows the array with Nulls when `index` is past its end.
  UnknownElement& operator[](size_t index);
  // Throws Exception when `index` is past the end.
  const UnknownElement& operator[](size_t index) const;

  void Resize(size_t count) { elements_.resize(count); }
  void Clear() { elements_.clear(); }

  bool operator==(const Array& array) const { return elements_ == array.elements_; }
  bool operator!=(const Array& array) const { return !(*this == array); }

 private:
  Elements elements_;
};

// The holder behind an UnknownElement, one Imp_T per kind.
class UnknownElement::Imp {
 public:
  virtual ~Imp() = default;
  virtual Imp* Clone() const = 0;
  virtual bool Compare(const Imp& imp) const = 0;
  virtual void Accept(ConstVisitor& visitor) const = 0;
  virtual void Accept(Visitor& visitor) = 0;
};

template <typename ElementTypeT>
class UnknownElement::Imp_T : public UnknownElement::Imp {
 public:
  Imp_T() = default;
  explicit Imp_T(const ElementTypeT& element) : element_(element) {}
  explicit Imp_T(ElementTypeT&& element) : element_(std::move(element)) {}

  Imp* Clone() const override { return new Imp_T<ElementTypeT>(*this); }

  // Different kinds are never equal: a Number 1 is neither a String "1" nor a Boolean true.
  bool Compare(const Imp& imp) const override {
    ConstCastVisitor_T<ElementTypeT> cast;
    imp.Accept(cast);
    return cast.element != nullptr && element_ == *cast.element;
  }

  void Accept(ConstVisitor& visitor) const override { visitor.Visit(element_); }
  void Accept(Visitor& visitor) override { visitor.Visit(element_); }

  ElementTypeT& value() { return element_; }

 private:
  ElementTypeT element_{};
};

// Copies a value held in place into another element's storage, which Clone(), making a heap
// copy, cannot do.
class UnknownElement::InPlaceCopy : public ConstCastVisitor {
 public:
  explicit InPlaceCopy(UnknownElement& target) : target_(target) {}

  using ConstCastVisitor::Visit;
  void Visit(const Number& number) override { target_.hold<Number>(number); }
  void Visit(const Boolean& boolean) override { target_.hold<Boolean>(boolean); }
  void Visit(const String& string) override { target_.hold<String>(string); }
  void Visit(const Object& object) override { target_.hold<Object>(object); }

 private:
  UnknownElement& target_;
};

// Moves a value held in place into another element's storage.
class UnknownElement::InPlaceMove : public CastVisitor {
 public:
  explicit InPlaceMove(UnknownElement& target) : target_(target) {}

  using CastVisitor::Visit;
  void Visit(Number& number) override { target_.hold<Number>(number); }
  void Visit(Boolean& boolean) override { target_.hold<Boolean>(boolean); }
  void Visit(String& string) override { target_.hold<String>(std::move(string)); }
  void Visit(Object& object) override { target_.hold<Object>(std::move(object)); }

 private:
  UnknownElement& target_;
};

// Null is stateless, so every Null element dispatches through one immutable holder; it is
// safe to share between threads.
inline UnknownElement::Imp& UnknownElement::nullHolder() {
  static Imp_T<Null> holder{Null()};
  return holder;
}

template <typename ElementTypeT, typename... ArgumentsT>
void UnknownElement::hold(ArgumentsT&&... arguments) {
  if constexpr (kHeldInPlace<ElementTypeT>) {
    static_assert(sizeof(Imp_T<ElementTypeT>) <= sizeof storage_ &&
                  alignof(Imp_T<ElementTypeT>) <= alignof(std::string));
    imp_ = new (storage_) Imp_T<ElementTypeT>(std::forward<ArgumentsT>(arguments)...);
  } else {
    imp_ = new Imp_T<ElementTypeT>(std::forward<ArgumentsT>(arguments)...);
  }
}

inline void UnknownElement::holdCopy(const UnknownElement& element) {
  if (element.heldInPlace()) {
    InPlaceCopy copy(*this);
    element.imp_->Accept(copy);
  } else if (element.imp_ != nullptr) {
    imp_ = element.imp_->Clone();
  }
}

inline void UnknownElement::holdTaken(UnknownElement& element) noexcept {
  if (element.heldInPlace()) {
    InPlaceMove move(*this);
    element.imp_->Accept(move);
    element.release();
  } else {
    imp_ = element.imp_;
    element.imp_ = nullptr;
  }
}

inline void UnknownElement::release() noexcept {
  if (heldInPlace()) {
    imp_->~Imp();
  } else {
    delete imp_;
  }
  imp_ = nullptr;
}

inline UnknownElement::UnknownElement(const Object& object) { hold<Object>(object); }
inline UnknownElement::UnknownElement(Object&& object) { hold<Object>(std::move(object)); }
inline UnknownElement::UnknownElement(const Array& array) { hold<Array>(array); }
inline UnknownElement::UnknownElement(Array&& array) { hold<Array>(std::move(array)); }
inline UnknownElement::UnknownElement(const Number& number) { hold<Number>(number); }
inline UnknownElement::UnknownElement(const String& string) { hold<String>(string); }
inline UnknownElement::UnknownElement(String&& string) { hold<String>(std::move(string)); }
inline UnknownElement::UnknownElement(const Boolean& boolean) { hold<Boolean>(boolean); }
inline UnknownElement::UnknownElement(const Null&) {}

inline UnknownElement::~UnknownElement() { release(); }

inline UnknownElement& UnknownElement::operator=(const UnknownElement& element) {
  if (this != &element) {
    // Copy first: the source may be our own child, which releasing our holder would destroy.
    UnknownElement copy(element);
    release();
    holdTaken(copy);
  }
  return *this;
}

inline UnknownElement& UnknownElement::operator=(UnknownElement&& element) noexcept {
  if (this != &element) {
    // Take the source first: it may be our own child.
    UnknownElement taken(std::move(element));
    release();
    holdTaken(taken);
  }
  return *this;
}

template <typename ElementTypeT>
const ElementTypeT& UnknownElement::CastTo() const {
  ConstCastVisitor_T<ElementTypeT> cast;
  Accept(cast);
  if (cast.element == nullptr) throw Exception("Bad cast");
  return *cast.element;
}

template <typename ElementTypeT>
ElementTypeT& UnknownElement::ConvertTo() {
  if constexpr (!std::is_same_v<ElementTypeT, Null>) {
    // A Null has no holder to visit: build the default value right away.
    if (imp_ == nullptr) {
      hold<ElementTypeT>();
      return static_cast<Imp_T<ElementTypeT>*>(imp_)->value();
    }
  }
  CastVisitor_T<ElementTypeT> cast;
  Accept(cast);
  if (cast.element == nullptr) {
    // Deliberate: non-const access replaces a value of another kind instead of failing.
    release();
    // The default value is built in place: moving a std::deque in would allocate.
    if constexpr (!std::is_same_v<ElementTypeT, Null>) hold<ElementTypeT>();
    Accept(cast);
  }
  return *cast.element;
}

inline UnknownElement& UnknownElement::operator[](const std::string& name) {
  return ConvertTo<Object>()[name];
}

inline const UnknownElement& UnknownElement::operator[](const std::string& name) const {
  return CastTo<Object>()[name];
}

inline UnknownElement& UnknownElement::operator[](size_t index) {
  return ConvertTo<Array>()[index];
}

inline const UnknownElement& UnknownElement::operator[](size_t index) const {
  return CastTo<Array>()[index];
}

inline void UnknownElement::Accept(ConstVisitor& visitor) const { holder().Accept(visitor); }

inline void UnknownElement::Accept(Visitor& visitor) { holder().Accept(visitor); }

inline bool UnknownElement::operator==(const UnknownElement& element) const {
  return holder().Compare(element.holder());
}

inline Object::iterator Object::Find(const std::string& name) {
  return std::find_if(begin(), end(),
                      [&name](const Member& member) { return member.name == name; });
}

inline Object::const_iterator Object::Find(const std::string& name) const {
  return std::find_if(begin(), end(),
                      [&name](const Member& member) { return member.name == name; });
}

inline Object::iterator Object::Insert(const Member& member, iterator where) {
  if (Find(member.name) != end()) throw Exception("Object member already exists: " + member.name);
  return members_.insert(where, member);
}

inline Object::iterator Object::Insert(Member&& member, iterator where) {
  if (Find(member.name) != end()) throw Exception("Object member already exists: " + member.name);
  return members_.insert(where, std::move(member));
}

inline UnknownElement& Object::operator[](const std::string& name) {
  auto found = Find(name);
  if (found == end()) found = members_.insert(end(), Member(name));
  return found->element;
}

inline const UnknownElement& Object::operator[](const std::string& name) const {
  auto found = Find(name);
  if (found == end()) throw Exception("Object member not found: " + name);
  return found->element;
}

inline bool Object::operator==(const Object& object) const {
  return size() == object.size() &&
         std::equal(begin(), end(), object.begin(), [](const Member& left, const Member& right) {
           return left.name == right.name && left.element == right.element;
         });
}

inline Array::iterator Array::Insert(UnknownElement&& element, iterator where) {
  // Into an empty deque, insert() at end() pushes at the front, which costs a second block.
  if (where == elements_.end()) {
    elements_.push_back(std::move(element));
    return std::prev(elements_.end());
  }
  return elements_.insert(where, std::move(element));
}

inline UnknownElement& Array::operator[](size_t index) {
  if (index >= elements_.size()) elements_.resize(index + 1);
  return elements_[index];
}

inline const UnknownElement& Array::operator[](size_t index) const {
  if (index >= elements_.size()) {
    throw Exception("Array index out of range: " + std::to_string(index));
  }
  return elements_[index];
}

}  // namespace dova::json

#endif  // DOVA_JSON_ELEMENTS_H_
