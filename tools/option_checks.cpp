#include "option_checks.h"

#include <regex>
#include <string>

#include "diag_report.h"

namespace korcommon::cli {

CLI::Validator diagLevelValidator() {
  return CLI::Validator(
      [](std::string& text) {
        return parseDiagLevel(text) ? std::string()
                                    : "must be ok, warn, error, 0, 1 or 2, not \"" + text + "\"";
      },
      "");
}

CLI::Validator regexValidator() {
  return CLI::Validator(
      [](std::string& text) {
        try {
          std::regex(text, std::regex::ECMAScript);
        } catch (const std::regex_error& error) {
          return "not a regular expression: \"" + text + "\" (" + error.what() + ")";
        }
        return std::string();
      },
      "");
}

}  // namespace korcommon::cli
