#include "dova/options.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "resolve_options.h"
#include "transport_factory.h"

namespace dova {

namespace {

constexpr char kDefaultTransport[] = "local";
constexpr int kDefaultMode = 1;
constexpr int kModeCount = 3;  // modes are 0 to kModeCount - 1
constexpr int kDefaultDomainId = 0;
constexpr int kMaxDomainId = 232;

// `items` as "a, b or c".
std::string spokenList(const std::vector<std::string>& items) {
  std::string text;
  for (size_t i = 0; i < items.size(); ++i) {
    if (i > 0) text += i + 1 == items.size() ? " or " : ", ";
    text += items[i];
  }
  return text;
}

// `items` as "a, b, c".
std::string commaList(const std::vector<std::string>& items) {
  std::string text;
  for (const std::string& item : items) text += (text.empty() ? "" : ", ") + item;
  return text;
}

std::vector<std::string> modeNames() {
  std::vector<std::string> names;
  names.reserve(kModeCount);
  for (int mode = 0; mode < kModeCount; ++mode) names.push_back(std::to_string(mode));
  return names;
}

const std::string& domainRange() {
  static const std::string range = "0 to " + std::to_string(kMaxDomainId);
  return range;
}

// Parses a whole decimal integer; nullopt for anything else.
std::optional<long> parseInteger(const char* text) {
  if (text == nullptr || *text == '\0') return std::nullopt;
  errno = 0;
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (errno != 0 || *end != '\0') return std::nullopt;
  return value;
}

const char* setting(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : nullptr;
}

}  // namespace

std::string acceptedOptions() {
  return "DOVA_TRANSPORT must be " + spokenList(platform::transportNames()) + ", DOVA_MODE " +
         spokenList(modeNames()) + ", DOVA_DOMAIN_ID " + domainRange();
}

namespace platform {

std::string resolveOptions(Options& options) {
  if (options.transport.empty()) {
    const char* transport = setting("DOVA_TRANSPORT");
    options.transport = transport != nullptr ? transport : kDefaultTransport;
  }
  if (!isKnownTransport(options.transport)) {
    return "unknown transport \"" + options.transport +
           "\" (known: " + commaList(transportNames()) + ")";
  }
  if (options.mode == -1) {
    if (const char* text = setting("DOVA_MODE")) {
      const std::optional<long> mode = parseInteger(text);
      if (!mode) return std::string("DOVA_MODE is not a number: \"") + text + "\"";
      options.mode = static_cast<int>(*mode < INT_MIN || *mode > INT_MAX ? -2 : *mode);
    } else {
      options.mode = kDefaultMode;
    }
  }
  if (options.mode < 0 || options.mode >= kModeCount) {
    return "unknown mode " + std::to_string(options.mode) + " (known: " + commaList(modeNames()) +
           ")";
  }
  if (options.domain_id == -1) {
    if (const char* text = setting("DOVA_DOMAIN_ID")) {
      const std::optional<long> domain = parseInteger(text);
      if (!domain || *domain < 0 || *domain > kMaxDomainId) {
        return "DOVA_DOMAIN_ID is not a domain id (" + domainRange() + "): \"" + text + "\"";
      }
      options.domain_id = static_cast<int>(*domain);
    } else {
      options.domain_id = kDefaultDomainId;
    }
  }
  if (options.domain_id < 0 || options.domain_id > kMaxDomainId) {
    return "domain id " + std::to_string(options.domain_id) + " is outside " + domainRange();
  }
  return std::string();
}

}  // namespace platform
}  // namespace dova
