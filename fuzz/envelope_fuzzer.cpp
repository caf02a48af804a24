// Fuzzes the signal envelope's inspection and parsing of received text.
//
// Only the functions that take text apart are called: the creating ones read the robot's serial
// number file, and a fuzzer must not depend on or touch the machine's important data. Each is
// checked against what the JSON reader itself makes of the input:
//  - text the reader refuses gives the neutral result (false, "", the partial object, -1) and
//    exactly one ERROR report, under the function's own name, whose text is the reader's message
//    byte for byte, so a '%' in received text never acts as a printf conversion;
//  - text the reader accepts gives the members' presence and values, without any report;
//  - the empty text gives each function's documented answer;
//  - the object overloads and the typed getters agree with the object read.
#include <cstddef>
#include <cstdint>
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

// Checks the reports made since the last call: none when `function` is empty, otherwise exactly
// one at ERROR under `function` with the reader's message.
void checkReports(const std::string& function, const std::string& error) {
  const std::string expected = function.empty() ? "" : function + ": " + error;
  FUZZ_CHECK(reports == expected, "reported \"" + reports + "\", expected \"" + expected + "\"");
  reports.clear();
}

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
  dova::setTraceSink([](int level, const char*, int, const char* function,
                        const std::string& text) {
    reports += (level == dova::ERROR ? "" : "(not ERROR) ") + std::string(function) + ": " + text;
  });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Object object;
  const std::string error = korcommon::fuzz::readJson(text, object);
  const bool read = error.empty() && !text.empty();
  reports.clear();
  const auto member = [&](const char* name) {
    const auto found = object.Find(name);
    return found == object.end() ? nullptr : &found->element;
  };

  // The member tests; only hasSigAccid, hasSigTitle and hasSigGuid read an empty text.
  const struct {
    const char* function;
    const char* name;
    bool (*text_test)(const std::string&);
    bool (*object_test)(const Object&);
    bool reads_empty;
  } tests[] = {{"hasSigAccid", "accid", korcommon::hasSigAccid, korcommon::hasSigAccid, true},
               {"hasSigTitle", "title", korcommon::hasSigTitle, korcommon::hasSigTitle, true},
               {"hasSigGuid", "guid", korcommon::hasSigGuid, korcommon::hasSigGuid, true},
               {"hasSigTimestamp", "timestamp", korcommon::hasSigTimestamp,
                korcommon::hasSigTimestamp, false},
               {"hasSigData", "data", korcommon::hasSigData, korcommon::hasSigData, false}};
  bool all = true;
  bool all_but_accid = read;
  for (const auto& test : tests) {
    FUZZ_CHECK(test.text_test(text) == (read && member(test.name)), test.function);
    checkReports(read || (text.empty() && !test.reads_empty) ? "" : test.function, error);
    FUZZ_CHECK(test.object_test(object) == (member(test.name) != nullptr), test.function);
    all = all && member(test.name) != nullptr;
    if (test.name != std::string("accid")) all_but_accid = all_but_accid && member(test.name);
  }
  FUZZ_CHECK(korcommon::isSigValid(object) == all, "isSigValid of the object");
  FUZZ_CHECK(korcommon::isSigValid(text) == all_but_accid, "isSigValid of the text");
  checkReports(read ? "" : "hasSigTitle", error);

  // On an error the caller deliberately gets the members read before it.
  FUZZ_CHECK(korcommon::parseSigToJson(text) == object, "parseSigToJson");
  checkReports(read || text.empty() ? "" : "parseSigToJson", error);
  const struct {
    const char* function;
    const char* name;
    std::string (*parse)(const std::string&);
  } parsers[] = {{"parseSigAccid", "accid", korcommon::parseSigAccid},
                 {"parseSigTitle", "title", korcommon::parseSigTitle},
                 {"parseSigGuid", "guid", korcommon::parseSigGuid}};
  for (const auto& parser : parsers) {
    const auto* value = as<dova::json::String>(read ? member(parser.name) : nullptr);
    FUZZ_CHECK(parser.parse(text) == (value ? value->Value() : ""), parser.function);
    checkReports(read || text.empty() ? "" : parser.function, error);
  }
  const auto* timestamp = as<dova::json::Number>(member("timestamp"));
  const long expected = !read ? -1 : timestamp ? dova::msgs::truncateToInt64(*timestamp) : 0;
  FUZZ_CHECK(korcommon::parseSigTimestamp(text) == expected, "parseSigTimestamp");
  checkReports(read || text.empty() ? "" : "parseSigTimestamp", error);

  for (const Object::Member& entry : object) {
    checkGetter<dova::json::Number>(entry.element, korcommon::getSigNumber);
    checkGetter<dova::json::Boolean>(entry.element, korcommon::getSigBool);
    checkGetter<dova::json::String>(entry.element, korcommon::getSigString);
  }
  checkReports("", "");
  return 0;
}
