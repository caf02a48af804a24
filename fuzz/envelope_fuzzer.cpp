// Fuzzes the signal envelope's inspection and parsing of received text.
//
// Only the functions that take text apart are called: the creating ones read the robot's serial
// number file, and a fuzzer must not depend on or touch the machine's important data. Each is
// checked against what the JSON reader itself makes of the input:
//  - text the reader refuses gives the neutral result (false, "", the partial object, -1) and
//    exactly one ERROR report from the envelope's source file, under the function's own name,
//    whose text is the reader's message byte for byte, so a '%' in received text never acts as
//    a printf conversion;
//  - text the reader accepts gives the members' presence and values, without any report;
//  - the empty text gives each function's documented answer;
//  - the object overloads and the typed getters agree with the object read.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "dova/json/reader.h"
#include "dova/msgs/number_cast.h"
#include "dova/trace.h"
#include "fuzz_support.h"
#include "korcommon/utils.h"

namespace {

using dova::json::Object;
using dova::json::UnknownElement;

// The reports made since the last check, each as "function: text".
std::string reports;

template <typename KindT>
const KindT* as(const UnknownElement* element) {
  UnknownElement::ConstCastVisitor_T<KindT> cast;
  if (element != nullptr) element->Accept(cast);
  return cast.element;
}

// A typed getter on `element`: its value, or "Bad cast" exactly when the kind differs.
template <typename KindT, typename Getter>
void checkGetter(const UnknownElement& element, Getter getter) {
  const KindT* value = as<KindT>(&element);
  try {
    const auto got = getter(element);
    FUZZ_CHECK(value != nullptr && got == value->Value(), "a typed getter's value");
  } catch (const dova::json::Exception& error) {
    FUZZ_CHECK(value == nullptr && std::string(error.what()) == "Bad cast", "a getter threw");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // Collected for the checks instead of being printed on standard error.
  dova::setTraceSink(
      [](int level, const char* file, int, const char* function, const std::string& text) {
        reports += (level == dova::ERROR ? "" : "(not ERROR) ") +
                   std::string(file && std::strstr(file, "utils") ? "" : "(elsewhere) ") +
                   function + ": " + text;
      });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace korcommon;
  const std::string text(reinterpret_cast<const char*>(data), size);
  Object object;
  const std::string error = korcommon::fuzz::readJson(text, object);
  const bool read = error.empty() && !text.empty();
  reports.clear();
  // The reports since the last check: the reader's error once under `function` when `function`
  // read a text the reader refuses, otherwise none.
  const auto checkReports = [&](const std::string& function, bool reads) {
    const std::string expected = read || !reads ? "" : function + ": " + error;
    FUZZ_CHECK(reports == expected, "reported \"" + reports + "\", expected \"" + expected + "\"");
    reports.clear();
  };
  const auto member = [&](const char* name) {
    const auto found = object.Find(name);
    return found == object.end() ? nullptr : &found->element;
  };

  // Each member's tests and text extractor. Deliberately, only the tests of the members with an
  // extractor read an empty text, and the extractors read none.
  const struct {
    const char* name;
    std::string member;
    bool (*text_test)(const std::string&);
    bool (*object_test)(const Object&);
    std::string (*parse)(const std::string&);
  } members[] = {{"accid", "Accid", hasSigAccid, hasSigAccid, parseSigAccid},
                 {"title", "Title", hasSigTitle, hasSigTitle, parseSigTitle},
                 {"guid", "Guid", hasSigGuid, hasSigGuid, parseSigGuid},
                 {"timestamp", "Timestamp", hasSigTimestamp, hasSigTimestamp, nullptr},
                 {"data", "Data", hasSigData, hasSigData, nullptr}};
  for (const auto& test : members) {
    const auto* found = member(test.name);
    FUZZ_CHECK(test.text_test(text) == (read && found), "hasSig" + test.member);
    checkReports("hasSig" + test.member, !text.empty() || test.parse);
    FUZZ_CHECK(test.object_test(object) == (found != nullptr), "hasSig" + test.member);
    if (test.parse == nullptr) continue;
    const auto* value = as<dova::json::String>(read ? found : nullptr);
    FUZZ_CHECK(test.parse(text) == (value ? value->Value() : ""), "parseSig" + test.member);
    checkReports("parseSig" + test.member, !text.empty());
  }
  // The text's validity deliberately does not ask for an accid.
  const bool valid = member("title") && member("guid") && member("timestamp") && member("data");
  FUZZ_CHECK(isSigValid(object) == (valid && member("accid")), "isSigValid of the object");
  FUZZ_CHECK(isSigValid(text) == (read && valid), "isSigValid of the text");
  checkReports("hasSigTitle", true);

  // On an error the caller deliberately gets the members read before it.
  FUZZ_CHECK(parseSigToJson(text) == object, "parseSigToJson");
  checkReports("parseSigToJson", !text.empty());
  const auto* timestamp = as<dova::json::Number>(member("timestamp"));
  const long expected = !read ? -1 : timestamp ? dova::msgs::truncateToInt64(*timestamp) : 0;
  FUZZ_CHECK(parseSigTimestamp(text) == expected, "parseSigTimestamp");
  checkReports("parseSigTimestamp", !text.empty());

  for (const Object::Member& entry : object) {
    checkGetter<dova::json::Number>(entry.element, getSigNumber);
    checkGetter<dova::json::Boolean>(entry.element, getSigBool);
    checkGetter<dova::json::String>(entry.element, getSigString);
  }
  checkReports("", false);
  return 0;
}
