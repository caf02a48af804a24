#include "korcommon/utils.h"

#include <exception>
#include <optional>
#include <sstream>
#include <utility>

#include "dova/guid.h"
#include "dova/json/reader.h"
#include "dova/json/writer.h"
#include "dova/msgs/number_cast.h"
#include "dova/time.h"
#include "dova/trace.h"
#include "korcommon/imptdata_files.h"
#include "korcommon/trace_text.h"

namespace korcommon {
namespace {

using dova::json::Object;
using dova::json::UnknownElement;

// Traces a caught exception at ERROR under `function`; the trace text is exactly what().
void reportError(const char* function, const std::exception& error) {
  detail::traceLiteral(dova::ERROR, __FILE__, __LINE__, function, error.what());
}

// Runs `body`; a std::exception it throws is reported under `function` and yields `neutral`.
template <typename Result, typename Body>
Result neutralOnError(const char* function, Result neutral, Body body) {
  try {
    return body();
  } catch (const std::exception& error) {
    reportError(function, error);
    return neutral;
  }
}

// The wall clock in milliseconds since the epoch, the sub-millisecond part as a fraction.
double wallClockMilliseconds() {
  const dova::Time now = dova::Time::WallTime();
  return static_cast<double>(now.sec) * 1000.0 + static_cast<double>(now.nsec) * 0.000001;
}

// Generation happens here, after the accid is read, so every overload makes its calls in the
// same order.
Object makeEnvelope(const std::string& title, const std::optional<std::string>& guid,
                    const std::optional<long>& timestamp, const UnknownElement& data) {
  Object envelope;
  // Every name is new, so operator[] appends it: this fixes the member order.
  envelope["accid"] = dova::json::String(getRobotAccid());
  envelope["title"] = dova::json::String(title);
  envelope["guid"] = dova::json::String(guid ? *guid : dova::guid::uuid());
  envelope["timestamp"] =
      dova::json::Number(timestamp ? static_cast<double>(*timestamp) : wallClockMilliseconds());
  envelope["data"] = data;
  return envelope;
}

std::string toText(const Object& envelope) {
  std::stringstream stream;
  dova::json::Writer::Write(envelope, stream);
  return stream.str();
}

// Reads `text` into `signal`; on a reader error `signal` keeps what was read before it.
void readSignal(const std::string& text, Object& signal) {
  std::istringstream stream(text);
  dova::json::Reader::Read_i<Object>(signal, stream);
}

bool hasMember(const Object& signal, const char* name) { return signal.Find(name) != signal.end(); }

bool textHasMember(const std::string& text, const char* name, const char* function) {
  return neutralOnError(function, false, [&] {
    Object signal;
    readSignal(text, signal);
    return hasMember(signal, name);
  });
}

std::string memberText(const std::string& text, const char* name, const char* function) {
  if (text.empty()) return std::string();
  return neutralOnError(function, std::string(), [&] {
    Object signal;
    readSignal(text, signal);
    // A missing member is added as Null; it and any non-string read as "".
    return signal[name].ConvertTo<dova::json::String>().Value();
  });
}

}  // namespace

std::string getRobotAccid() {
  // Read on every call, never cached: a serial number just stored goes out with the next
  // envelope.
  return neutralOnError("getRobotAccid", std::string(), [] {
    return detail::readStoredValue<std::string>(detail::kSerialNumberFile, "sn");
  });
}

Object createSigJson(const std::string& title, const std::string& guid, const long& timestamp,
                     const std::string& data) {
  return makeEnvelope(title, guid, timestamp, dova::json::String(data));
}

Object createSigJson(const std::string& title, const std::string& guid, const std::string& data) {
  return makeEnvelope(title, guid, std::nullopt, dova::json::String(data));
}

Object createSigJson(const std::string& title, const long& timestamp, const std::string& data) {
  return makeEnvelope(title, std::nullopt, timestamp, dova::json::String(data));
}

Object createSigJson(const std::string& title, const std::string& data) {
  return makeEnvelope(title, std::nullopt, std::nullopt, dova::json::String(data));
}

Object createSigJson(const std::string& title, const std::string& guid, const long& timestamp,
                     const Object& data) {
  return makeEnvelope(title, guid, timestamp, data);
}

Object createSigJson(const std::string& title, const std::string& guid, const Object& data) {
  return makeEnvelope(title, guid, std::nullopt, data);
}

Object createSigJson(const std::string& title, const long& timestamp, const Object& data) {
  return makeEnvelope(title, std::nullopt, timestamp, data);
}

Object createSigJson(const std::string& title, const Object& data) {
  return makeEnvelope(title, std::nullopt, std::nullopt, data);
}

std::string createSigString(const std::string& title, const std::string& guid,
                            const long& timestamp, const std::string& data) {
  return toText(createSigJson(title, guid, timestamp, data));
}

std::string createSigString(const std::string& title, const std::string& guid,
                            const std::string& data) {
  return toText(createSigJson(title, guid, data));
}

std::string createSigString(const std::string& title, const long& timestamp,
                            const std::string& data) {
  return toText(createSigJson(title, timestamp, data));
}

std::string createSigString(const std::string& title, const std::string& data) {
  return toText(createSigJson(title, data));
}

std::string createSigString(const std::string& title, const std::string& guid,
                            const long& timestamp, const Object& data) {
  return toText(createSigJson(title, guid, timestamp, data));
}

std::string createSigString(const std::string& title, const std::string& guid, const Object& data) {
  return toText(createSigJson(title, guid, data));
}

std::string createSigString(const std::string& title, const long& timestamp, const Object& data) {
  return toText(createSigJson(title, timestamp, data));
}

std::string createSigString(const std::string& title, const Object& data) {
  return toText(createSigJson(title, data));
}

bool hasSigAccid(const Object& signal) { return hasMember(signal, "accid"); }
bool hasSigTitle(const Object& signal) { return hasMember(signal, "title"); }
bool hasSigGuid(const Object& signal) { return hasMember(signal, "guid"); }
bool hasSigTimestamp(const Object& signal) { return hasMember(signal, "timestamp"); }
bool hasSigData(const Object& signal) { return hasMember(signal, "data"); }

bool hasSigAccid(const std::string& signal) {
  return textHasMember(signal, "accid", "hasSigAccid");
}

bool hasSigTitle(const std::string& signal) {
  return textHasMember(signal, "title", "hasSigTitle");
}

bool hasSigGuid(const std::string& signal) { return textHasMember(signal, "guid", "hasSigGuid"); }

// Deliberate: only this test and hasSigData answer an empty text without reading (and reporting).
bool hasSigTimestamp(const std::string& signal) {
  return !signal.empty() && textHasMember(signal, "timestamp", "hasSigTimestamp");
}

// Deliberate: only this test and hasSigTimestamp answer an empty text without reading.
bool hasSigData(const std::string& signal) {
  return !signal.empty() && textHasMember(signal, "data", "hasSigData");
}

bool isSigValid(const Object& signal) {
  return hasSigAccid(signal) && hasSigTitle(signal) && hasSigGuid(signal) &&
         hasSigTimestamp(signal) && hasSigData(signal);
}

// Deliberately does not test "accid", unlike the Object overload; receivers rely on it.
bool isSigValid(const std::string& signal) {
  return hasSigTitle(signal) && hasSigGuid(signal) && hasSigTimestamp(signal) && hasSigData(signal);
}

double getSigNumber(const UnknownElement& element) { return element.CastTo<dova::json::Number>(); }

bool getSigBool(const UnknownElement& element) { return element.CastTo<dova::json::Boolean>(); }

std::string getSigString(const UnknownElement& element) {
  return element.CastTo<dova::json::String>();
}

Object parseSigToJson(const std::string& signal) {
  Object result;
  if (signal.empty()) return result;
  try {
    readSignal(signal, result);
  } catch (const std::exception& error) {
    // Deliberate: the caller gets the members read before the error.
    reportError("parseSigToJson", error);
  }
  return result;
}

std::string parseSigAccid(const std::string& signal) {
  return memberText(signal, "accid", "parseSigAccid");
}

std::string parseSigTitle(const std::string& signal) {
  return memberText(signal, "title", "parseSigTitle");
}

std::string parseSigGuid(const std::string& signal) {
  return memberText(signal, "guid", "parseSigGuid");
}

long parseSigTimestamp(const std::string& signal) {
  // -1: no envelope could be read; 0 (below): read, but no numeric "timestamp".
  if (signal.empty()) return -1;
  return neutralOnError("parseSigTimestamp", -1L, [&] {
    Object envelope;
    readSignal(signal, envelope);
    // The messages' rule for integers from JSON numbers: received text can carry any number.
    return static_cast<long>(
        dova::msgs::truncateToInt64(envelope["timestamp"].ConvertTo<dova::json::Number>()));
  });
}

}  // namespace korcommon
