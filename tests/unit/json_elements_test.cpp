#include <gtest/gtest.h>

#include <cmath>
#include <sstream>
#include <string>
#include <utility>

#include "dova/json/elements.h"
#include "dova/json/writer.h"

namespace {

using dova::json::Array;
using dova::json::Boolean;
using dova::json::Exception;
using dova::json::Null;
using dova::json::Number;
using dova::json::Object;
using dova::json::String;
using dova::json::UnknownElement;

std::string text(const UnknownElement& element) {
  std::ostringstream stream;
  dova::json::Writer::Write(element, stream);
  return stream.str();
}

std::string error(void (*access)()) {
  try {
    access();
  } catch (const Exception& thrown) {
    return thrown.what();
  }
  return "no exception";
}

TEST(JsonElements, NonConstAccessConvertsAndGrowsConstAccessThrows) {
  UnknownElement element = String("text");
  EXPECT_EQ(element.ConvertTo<Number>().Value(), 0.0);  // another kind becomes the default
  element.ConvertTo<Number>() = 7.5;                    // the same kind is kept in place
  EXPECT_EQ(element.CastTo<Number>().Value(), 7.5);
  EXPECT_EQ(text(element.ConvertTo<Array>()), "[]");
  element[size_t{2}] = String("x");
  element["a"]["b"].ConvertTo<Number>();
  element["c"];
  EXPECT_EQ(text(element), R"({"a":{"b":0},"c":null})");
  element["a"] = Boolean(true);
  EXPECT_EQ(text(element), R"({"a":true,"c":null})");  // new names at the end, old ones in place
  element = Array();
  element[size_t{2}] = String("x");
  EXPECT_EQ(text(element), R"([null,null,"x"])");

  EXPECT_EQ(error([] { static_cast<void>(UnknownElement(String("t")).CastTo<Number>()); }),
            "Bad cast");
  EXPECT_EQ(error([] {
              const UnknownElement null;
              static_cast<void>(static_cast<const Boolean&>(null));
            }),
            "Bad cast");
  EXPECT_EQ(error([] {
              Object object;
              object.Insert(Object::Member("k", Number(1)));
              object.Insert(Object::Member("k", Number(2)));
            }),
            "Object member already exists: k");
  Object object;
  object.Insert(Object::Member("k", Number(1)));
  const Object::Member again("k");
  EXPECT_THROW(object.Insert(again), Exception);
  object.Insert(Object::Member("first"), object.begin());
  EXPECT_EQ(text(object), R"({"first":null,"k":1})");
  EXPECT_EQ(object.Find("K"), object.end());
}

TEST(JsonElements, CopiesAreDeepAndAssignmentFromAChildIsSafe) {
  UnknownElement original;
  original["list"][size_t{1}] = Number(2);
  original["list"][size_t{0}]["name"] = String("a text too long for any small buffer");
  UnknownElement copy = original;
  copy["list"][size_t{1}] = Number(3);
  EXPECT_EQ(text(original), R"({"list":[{"name":"a text too long for any small buffer"},2]})");

  const UnknownElement& itself = original;
  original = itself;
  original = original["list"];
  original = original[size_t{0}];
  original = std::move(original["name"]);
  EXPECT_EQ(text(original), R"("a text too long for any small buffer")");
  UnknownElement moved = std::move(copy);
  EXPECT_EQ(text(copy), "null");
  EXPECT_EQ(text(moved), R"({"list":[{"name":"a text too long for any small buffer"},3]})");
}

TEST(JsonElements, EqualityComparesKindValueAndOrder) {
  const auto equal = [](const UnknownElement& left, const UnknownElement& right) {
    return left == right;
  };
  EXPECT_TRUE(equal(UnknownElement(), Null()));
  EXPECT_FALSE(equal(Number(1), Boolean(true)));
  EXPECT_FALSE(equal(Number(1), String("1")));
  EXPECT_FALSE(equal(Array(), Object()));
  EXPECT_TRUE(equal(Number(0.0), Number(-0.0)));
  EXPECT_FALSE(equal(Number(std::nan("")), Number(std::nan(""))));
  EXPECT_FALSE(equal(String("a"), String(std::string("a\0", 2))));

  // Members named by the characters of `names`, each with the value 1.
  const auto object = [](const std::string& names) {
    UnknownElement built;
    for (const char name : names) built[std::string(1, name)] = Number(1);
    return built;
  };
  EXPECT_TRUE(equal(object("ab"), object("ab")));
  EXPECT_FALSE(equal(object("ab"), object("ba")));
  EXPECT_FALSE(equal(object("ab"), object("ac")));
  EXPECT_FALSE(equal(object("ab"), object("abc")));
  EXPECT_FALSE(equal(object("abc"), object("ab")));
  UnknownElement list;
  list[size_t{1}] = Number(1);
  EXPECT_FALSE(equal(list, UnknownElement(Array())));
  EXPECT_TRUE(equal(list, list));
}

}  // namespace
