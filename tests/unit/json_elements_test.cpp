#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "dova/json/elements.h"

namespace {

using dova::json::Array;
using dova::json::Boolean;
using dova::json::Exception;
using dova::json::Null;
using dova::json::Number;
using dova::json::Object;
using dova::json::String;
using dova::json::UnknownElement;

std::vector<std::string> memberNames(const Object& object) {
  std::vector<std::string> names;
  for (const Object::Member& member : object) names.push_back(member.name);
  return names;
}

template <typename KindT>
bool holds(const UnknownElement& element) {
  UnknownElement::ConstCastVisitor_T<KindT> cast;
  element.Accept(cast);
  return cast.element != nullptr;
}

TEST(JsonElements, DefaultElementIsNull) {
  const UnknownElement element;
  EXPECT_TRUE(holds<Null>(element));
  EXPECT_TRUE(element == UnknownElement(Null()));
  EXPECT_TRUE(Object::Member("k").element == UnknownElement());
}

TEST(JsonElements, ConvertToReplacesAnotherKindWithItsDefault) {
  UnknownElement element = String("text");
  EXPECT_EQ(element.ConvertTo<Number>().Value(), 0.0);
  EXPECT_TRUE(holds<Number>(element));

  // The same kind is returned in place, not replaced.
  element.ConvertTo<Number>() = 7.5;
  EXPECT_EQ(element.CastTo<Number>().Value(), 7.5);
  Number& through_operator = element;
  EXPECT_EQ(&through_operator, &element.ConvertTo<Number>());

  EXPECT_EQ(element.ConvertTo<String>().Value(), "");
  EXPECT_FALSE(element.ConvertTo<Boolean>().Value());
  EXPECT_TRUE(element.ConvertTo<Array>().empty());
  EXPECT_TRUE(element.ConvertTo<Object>().empty());
  element.ConvertTo<Null>();
  EXPECT_TRUE(holds<Null>(element));
}

TEST(JsonElements, ConstAccessToAnotherKindThrowsBadCast) {
  const UnknownElement element = String("text");
  try {
    element.CastTo<Number>();
    FAIL() << "no exception";
  } catch (const Exception& error) {
    EXPECT_STREQ(error.what(), "Bad cast");
  }
  EXPECT_THROW(static_cast<void>(static_cast<const Boolean&>(element)), Exception);
  EXPECT_THROW(element["name"], Exception);
  EXPECT_THROW(element[size_t{0}], Exception);
  EXPECT_EQ(element.CastTo<String>().Value(), "text");

  Object object;
  object["present"] = Number(1);
  const Object& const_object = object;
  EXPECT_THROW(const_object["absent"], Exception);
  EXPECT_EQ(object.size(), 1u);
}

TEST(JsonElements, ObjectSubscriptAppendsANullMemberOnce) {
  Object object;
  object["b"] = Number(1);
  UnknownElement& added = object["a"];
  EXPECT_TRUE(holds<Null>(added));
  EXPECT_EQ(&object["a"], &added);
  object["b"] = Number(2);
  EXPECT_EQ(memberNames(object), (std::vector<std::string>{"b", "a"}));
  EXPECT_NE(object.Find("a"), object.end());
  EXPECT_EQ(object.Find("A"), object.end());
}

TEST(JsonElements, NestedNonConstReadGrowsTheDocument) {
  Object object;
  EXPECT_EQ(object["a"]["b"].ConvertTo<Number>().Value(), 0.0);
  ASSERT_EQ(object.size(), 1u);
  const Object& inner = object["a"].CastTo<Object>();
  EXPECT_EQ(memberNames(inner), std::vector<std::string>{"b"});
  EXPECT_TRUE(holds<Number>(inner["b"]));

  UnknownElement element = Number(5);
  element[size_t{2}] = String("x");
  ASSERT_TRUE(holds<Array>(element));
  EXPECT_EQ(element.CastTo<Array>().size(), 3u);
  EXPECT_TRUE(holds<Null>(element[size_t{0}]));
}

TEST(JsonElements, InsertRefusesADuplicateNameAndKeepsTheObject) {
  Object object;
  object.Insert(Object::Member("k", Number(1)));
  const Object::Member again("k", Number(2));
  try {
    object.Insert(again);
    FAIL() << "no exception";
  } catch (const Exception& error) {
    EXPECT_STREQ(error.what(), "Object member already exists: k");
  }
  ASSERT_EQ(object.size(), 1u);
  EXPECT_EQ(object["k"].CastTo<Number>().Value(), 1.0);

  const Object::iterator first = object.Insert(Object::Member("first"), object.begin());
  EXPECT_EQ(first, object.begin());
  EXPECT_EQ(memberNames(object), (std::vector<std::string>{"first", "k"}));
}

TEST(JsonElements, ArraySubscriptGrowsWithNulls) {
  Array array;
  array[3] = Number(1);
  ASSERT_EQ(array.size(), 4u);
  EXPECT_TRUE(holds<Null>(array[0]));
  EXPECT_TRUE(holds<Number>(array[3]));

  const Array& const_array = array;
  EXPECT_THROW(const_array[4], Exception);
  EXPECT_EQ(array.size(), 4u);

  const Array::iterator front = array.Insert(String("front"), array.begin());
  EXPECT_EQ(front, array.begin());
  EXPECT_EQ(array[0].CastTo<String>().Value(), "front");
  array.Resize(2);
  EXPECT_EQ(array.size(), 2u);
  array.Clear();
  EXPECT_TRUE(array.empty());
}

TEST(JsonElements, AssignmentFromItselfOrItsOwnChild) {
  UnknownElement element;
  element["list"][size_t{1}] = Number(2);
  element["list"][size_t{0}]["name"] = String("a text too long for any small buffer");
  const UnknownElement before = element;
  const UnknownElement& itself = element;
  element = itself;
  EXPECT_TRUE(element == before);

  element = element["list"];
  ASSERT_TRUE(holds<Array>(element));
  EXPECT_EQ(element.CastTo<Array>().size(), 2u);
  element = element[size_t{0}];
  element = std::move(element["name"]);
  EXPECT_EQ(element.CastTo<String>().Value(), "a text too long for any small buffer");

  element = Array(before["list"]);
  element = std::move(element[size_t{1}]);
  EXPECT_EQ(element.CastTo<Number>().Value(), 2.0);
}

TEST(JsonElements, CopiesAreDeepAndMovesLeaveNull) {
  Object original;
  original["inner"]["value"] = Number(1);
  original["list"][size_t{0}] = String("x");
  Object copy = original;
  copy["inner"]["value"] = Number(2);
  copy["list"][size_t{0}].ConvertTo<String>().Value() += "y";
  EXPECT_EQ(original["inner"]["value"].CastTo<Number>().Value(), 1.0);
  EXPECT_EQ(original["list"][size_t{0}].CastTo<String>().Value(), "x");

  const std::vector<UnknownElement> values = {
      UnknownElement(original), UnknownElement(original["list"]), UnknownElement(String("s")),
      UnknownElement(Number(-0.5)), UnknownElement(Boolean(true))};
  for (const UnknownElement& value : values) {
    UnknownElement source = value;
    UnknownElement target = std::move(source);
    EXPECT_TRUE(target == value);
    EXPECT_TRUE(holds<Null>(source));
    source = std::move(target);
    EXPECT_TRUE(source == value);
  }
}

TEST(JsonElements, EqualityComparesKindValueAndOrder) {
  EXPECT_FALSE(UnknownElement(Number(1)) == UnknownElement(Boolean(true)));
  EXPECT_FALSE(UnknownElement(Number(1)) == UnknownElement(String("1")));
  EXPECT_FALSE(UnknownElement(Null()) == UnknownElement(Object()));
  EXPECT_FALSE(UnknownElement(Array()) == UnknownElement(Object()));
  EXPECT_TRUE(UnknownElement(Number(0.0)) == UnknownElement(Number(-0.0)));
  const UnknownElement nan = Number(std::numeric_limits<double>::quiet_NaN());
  EXPECT_FALSE(nan == nan);
  EXPECT_FALSE(UnknownElement(String("a")) == UnknownElement(String(std::string("a\0", 2))));

  Object forward;
  forward["a"] = Number(1);
  forward["b"] = Number(2);
  Object backward;
  backward["b"] = Number(2);
  backward["a"] = Number(1);
  EXPECT_FALSE(forward == backward);
  EXPECT_TRUE(forward != backward);
  Object renamed;
  renamed["a"] = Number(1);
  renamed["c"] = Number(2);
  EXPECT_FALSE(forward == renamed);
  Object same = forward;
  EXPECT_TRUE(forward == same);
  same["c"];
  EXPECT_FALSE(forward == same);

  Array one_two;
  one_two.Insert(Number(1));
  one_two.Insert(Number(2));
  Array two_one;
  two_one.Insert(Number(2));
  two_one.Insert(Number(1));
  EXPECT_FALSE(one_two == two_one);
  two_one.Insert(Number(1), two_one.begin());
  two_one.Resize(2);
  EXPECT_TRUE(one_two == two_one);
}

TEST(JsonElements, CastVisitorsFindOnlyTheirKind) {
  UnknownElement element = Number(3);
  UnknownElement::CastVisitor_T<String> as_string;
  element.Accept(as_string);
  EXPECT_EQ(as_string.element, nullptr);

  UnknownElement::CastVisitor_T<Number> as_number;
  element.Accept(as_number);
  ASSERT_NE(as_number.element, nullptr);
  as_number.element->Value() = 4;
  EXPECT_EQ(element.CastTo<Number>().Value(), 4.0);
}

}  // namespace
