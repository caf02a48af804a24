#include "web_json.h"

#include "dova/json/string_escapes.h"
#include "dova/msgs/json_text.h"

namespace korcommon::cli {

std::string browserJson(std::string_view json) {
  std::string safe;
  safe.reserve(json.size());
  for (const char byte : json) {
    if (static_cast<unsigned char>(byte) >= 0x20) {
      safe += byte;
      continue;
    }
    const auto escape = dova::json::string_escapes::unicodeEscape(static_cast<unsigned char>(byte));
    safe.append(escape.data(), escape.size());
  }
  return safe;
}

std::string errorJson(std::string_view message) {
  std::string json = "{\"error\":";
  dova::msgs::appendJsonString(json, message);
  return browserJson(json + "}");
}

}  // namespace korcommon::cli
