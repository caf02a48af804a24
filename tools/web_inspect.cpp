#include "web_inspect.h"

#include <sstream>

#include "dova/json/reader.h"
#include "dova/json/writer.h"
#include "dova/msgs/json_text.h"
#include "korcommon/utils.h"
#include "web_json.h"

namespace korcommon::cli {
namespace {

void appendMember(std::string& json, const char* name, bool present, const std::string& value) {
  if (json.back() != '[') json += ',';
  json += R"({"name":")";
  json += name;
  json += present ? R"(","present":true,"value":)" : R"(","present":false,"value":)";
  json += value + "}";
}

std::string quoted(const std::string& text) {
  std::string json;
  dova::msgs::appendJsonString(json, text);
  return json;
}

}  // namespace

std::optional<std::string> inspectEnvelope(const std::string& text, std::string& error) {
  dova::json::Object signal;
  std::istringstream stream(text);
  try {
    dova::json::Reader::Read(signal, stream);
  } catch (const dova::json::Exception& reader_error) {
    error = reader_error.what();
    return std::nullopt;
  }
  std::string data = "null";
  if (hasSigData(signal)) {
    std::ostringstream written;
    dova::json::Writer::Write(signal.Find("data")->element, written);
    data = quoted(written.str());
  }
  std::string json =
      std::string("{\"valid\":") + (isSigValid(signal) ? "true" : "false") + ",\"members\":[";
  appendMember(json, "accid", hasSigAccid(signal), quoted(parseSigAccid(text)));
  appendMember(json, "title", hasSigTitle(signal), quoted(parseSigTitle(text)));
  appendMember(json, "guid", hasSigGuid(signal), quoted(parseSigGuid(text)));
  appendMember(json, "timestamp", hasSigTimestamp(signal), std::to_string(parseSigTimestamp(text)));
  appendMember(json, "data", hasSigData(signal), data);
  return browserJson(json + "]}");
}

}  // namespace korcommon::cli
