#include "option_checks.h"

#include <charconv>
#include <climits>
#include <cmath>
#include <functional>
#include <optional>
#include <regex>
#include <string>
#include <system_error>

namespace korcommon::cli {
namespace {

std::string notThis(const std::string& text) { return ", not \"" + text + "\""; }

// A validator from a check that answers what is wrong with `text`, or "" when nothing is.
CLI::Validator checkedBy(std::function<std::string(const std::string&)> problem) {
  return CLI::Validator(
      [problem = std::move(problem)](std::string& text) {
        const std::string found = problem(text);
        return found.empty() ? found : found + notThis(text);
      },
      "");
}

// The whole of `text` as a finite decimal number.
std::optional<double> decimalNumber(const std::string& text) {
  double value = 0.0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end || !std::isfinite(value)) return std::nullopt;
  return value;
}

// The whole of `text` as a whole decimal number.
std::optional<long long> wholeDecimal(const std::string& text) {
  long long value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end) return std::nullopt;
  return value;
}

}  // namespace

CLI::Validator levelValidator(LevelScale scale) {
  return checkedBy([scale](const std::string& text) {
    return parseLevel(scale, text) ? std::string()
                                   : "must be one of " + levelChoices(scale) + " (name or number)";
  });
}

CLI::Validator regexValidator() {
  return checkedBy([](const std::string& text) {
    try {
      std::regex(text, std::regex::ECMAScript);
    } catch (const std::regex_error& error) {
      return std::string("must be a regular expression (") + error.what() + ")";
    }
    return std::string();
  });
}

CLI::Validator greaterThanZero() {
  return checkedBy([](const std::string& text) {
    const std::optional<double> value = decimalNumber(text);
    if (!value) return std::string("must be a number");
    return *value > 0.0 ? std::string() : std::string("must be greater than 0");
  });
}

CLI::Validator zeroOrMore() {
  return checkedBy([](const std::string& text) {
    const std::optional<double> value = decimalNumber(text);
    if (!value) return std::string("must be a number");
    return *value >= 0.0 ? std::string() : std::string("must be 0 or more");
  });
}

CLI::Validator countOfOneOrMore() {
  return checkedBy([](const std::string& text) {
    const std::optional<long long> value = wholeDecimal(text);
    if (!value) return std::string("must be a whole number");
    if (*value < 1) return std::string("must be greater than 0");
    return *value > INT_MAX ? "must be at most " + std::to_string(INT_MAX) : std::string();
  });
}

CLI::Validator wholeNumber() {
  return checkedBy([](const std::string& text) {
    const std::optional<long long> value = wholeDecimal(text);
    if (value && *value >= INT_MIN && *value <= INT_MAX) return std::string();
    return "must be a whole number from " + std::to_string(INT_MIN) + " to " +
           std::to_string(INT_MAX);
  });
}

}  // namespace korcommon::cli
