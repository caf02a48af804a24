#ifndef KORCOMMON_UTILS_H_
#define KORCOMMON_UTILS_H_

#include <string>

#include "dova/json/elements.h"

// The signal envelope: a JSON object with exactly the members "accid", "title",
// "guid", "timestamp" and "data", in that order, that the robot exchanges with
// other parties.
//
// The functions keep no state and take no lock; they may run on any number of
// threads at once, as far as the middleware's Param, guid, Time and trace
// operations allow. Failures of the JSON reader and of the serial-number file
// are reported through dova::mtrace at ERROR and answered with a neutral value
// (false, "", an empty or partial object, -1); only the typed getters throw.
namespace korcommon {

// The robot's account id: the key "sn" of "/opt/quor/imptdata/sn.yaml", read
// anew on every call. "" when the file or the key is missing (silently) or the
// file cannot be read (reported under "getRobotAccid").
std::string getRobotAccid();

// Envelope creation. "accid" is always getRobotAccid(). A guid that is not a
// parameter comes from dova::guid::uuid(); a timestamp that is not a parameter
// is the wall clock in milliseconds since the epoch, with the sub-millisecond
// part as a fraction. A text payload is stored as a JSON string, never parsed;
// an Object payload is nested as a deep copy. createSigString returns the
// envelope as compact JSON text, createSigJson as an object.
std::string createSigString(const std::string& title, const std::string& guid,
                            const long& timestamp, const std::string& data);
std::string createSigString(const std::string& title, const std::string& guid,
                            const std::string& data);
std::string createSigString(const std::string& title, const long& timestamp,
                            const std::string& data);
std::string createSigString(const std::string& title, const std::string& data);
dova::json::Object createSigJson(const std::string& title, const std::string& guid,
                                 const long& timestamp, const std::string& data);
dova::json::Object createSigJson(const std::string& title, const std::string& guid,
                                 const std::string& data);
dova::json::Object createSigJson(const std::string& title, const long& timestamp,
                                 const std::string& data);
dova::json::Object createSigJson(const std::string& title, const std::string& data);
dova::json::Object createSigJson(const std::string& title, const std::string& guid,
                                 const long& timestamp, const dova::json::Object& data);
dova::json::Object createSigJson(const std::string& title, const std::string& guid,
                                 const dova::json::Object& data);
dova::json::Object createSigJson(const std::string& title, const long& timestamp,
                                 const dova::json::Object& data);
dova::json::Object createSigJson(const std::string& title, const dova::json::Object& data);
std::string createSigString(const std::string& title, const std::string& guid,
                            const long& timestamp, const dova::json::Object& data);
std::string createSigString(const std::string& title, const std::string& guid,
                            const dova::json::Object& data);
std::string createSigString(const std::string& title, const long& timestamp,
                            const dova::json::Object& data);
std::string createSigString(const std::string& title, const dova::json::Object& data);

// Member tests. A member counts as present whatever its kind, Null included;
// names are compared byte for byte. The text overloads read the text first and
// answer false, with a report under their own name, when it is not a JSON
// object.
bool hasSigAccid(const dova::json::Object& signal);
bool hasSigTitle(const dova::json::Object& signal);
bool hasSigGuid(const dova::json::Object& signal);
bool hasSigTimestamp(const dova::json::Object& signal);
bool hasSigData(const dova::json::Object& signal);
bool hasSigAccid(const std::string& signal);
bool hasSigTitle(const std::string& signal);
bool hasSigGuid(const std::string& signal);
// An empty text answers false without a report.
bool hasSigTimestamp(const std::string& signal);
// An empty text answers false without a report.
bool hasSigData(const std::string& signal);

// All five members present.
bool isSigValid(const dova::json::Object& signal);
// "title", "guid", "timestamp" and "data" present; "accid" is not tested.
bool isSigValid(const std::string& signal);

// The element's value when it holds that kind; otherwise throws
// dova::json::Exception "Bad cast". No conversion between kinds.
double getSigNumber(const dova::json::UnknownElement& element);
bool getSigBool(const dova::json::UnknownElement& element);
std::string getSigString(const dova::json::UnknownElement& element);

// The text read as an object: empty for an empty text; on malformed text
// (reported) the members the reader had added before it failed.
dova::json::Object parseSigToJson(const std::string& signal);

// The member's text; "" for an empty or malformed text (reported) and for a
// missing or non-string member (not reported).
std::string parseSigAccid(const std::string& signal);
std::string parseSigTitle(const std::string& signal);
std::string parseSigGuid(const std::string& signal);

// "timestamp" truncated toward zero to milliseconds: -1 when no envelope could
// be read (empty text, or malformed and reported), 0 when it has no numeric
// "timestamp". Values beyond the range of long give its lowest value, as the
// processor's own conversion does.
long parseSigTimestamp(const std::string& signal);

}  // namespace korcommon

#endif  // KORCOMMON_UTILS_H_
