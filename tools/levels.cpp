#include "levels.h"

#include <cctype>
#include <vector>

#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/dova_msgs/Log.h"

namespace korcommon::cli {
namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using dova::dova_msgs::Log;

struct Level {
  const char* name;
  int value;
  bool numbered;  // also given by its number
};

const std::vector<Level>& levelsOf(LevelScale scale) {
  static const std::vector<Level> report = {{"ok", DiagnosticValue::OK, true},
                                            {"warn", DiagnosticValue::WARN, true},
                                            {"error", DiagnosticValue::ERROR, true}};
  static const std::vector<Level> monitor_row = {{"ok", DiagnosticValue::OK, true},
                                                 {"warn", DiagnosticValue::WARN, true},
                                                 {"error", DiagnosticValue::ERROR, true},
                                                 {"stale", kStaleRank, false}};
  static const std::vector<Level> record = {{"debug", Log::DEBUG, true},
                                            {"info", Log::INFO, true},
                                            {"warn", Log::WARN, true},
                                            {"error", Log::ERROR, true},
                                            {"fatal", Log::FATAL, true}};
  switch (scale) {
    case LevelScale::kReport:
      return report;
    case LevelScale::kMonitorRow:
      return monitor_row;
    case LevelScale::kRecord:
      break;
  }
  return record;
}

}  // namespace

std::optional<int> parseLevel(LevelScale scale, const std::string& text) {
  std::string word;
  for (const char c : text) word += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (word == "warning") word = "warn";
  for (const Level& level : levelsOf(scale)) {
    if (word == level.name || (level.numbered && word == std::to_string(level.value))) {
      return level.value;
    }
  }
  return std::nullopt;
}

std::string levelChoices(LevelScale scale) {
  std::string choices;
  for (const Level& level : levelsOf(scale)) {
    if (!choices.empty()) choices += ", ";
    choices += level.name;
    if (level.numbered) choices += " " + std::to_string(level.value);
  }
  return choices;
}

}  // namespace korcommon::cli
