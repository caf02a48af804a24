#ifndef KORCOMMON_TOOLS_LEVELS_H_
#define KORCOMMON_TOOLS_LEVELS_H_

#include <climits>
#include <optional>
#include <string>

namespace korcommon::cli {

// The level words of every command. The names are shared: debug, info, ok, warn (or
// warning), error, fatal, and stale for a silent reporter, in any case. The numbers are each
// message's own: a diagnostic report's level is OK 0, WARN 1, ERROR 2; a trace record's is
// DEBUG 1, INFO 2, WARN 4, ERROR 8, FATAL 16. A scale takes the names and numbers that mean
// something on it.
enum class LevelScale {
  kReport,      // diagnostic reports: ok, warn, error
  kMonitorRow,  // the monitor's rows: a report's levels, then stale above error
  kRecord,      // trace records: debug, info, warn, error, fatal
};

// A monitor row's rank when its reporter is stale: above every report level.
inline constexpr int kStaleRank = INT_MAX;

// The level `text` names on `scale` (kStaleRank for stale); nullopt when it names none.
std::optional<int> parseLevel(LevelScale scale, const std::string& text);

// The levels of `scale` in words, for help texts and errors: "ok 0, warn 1, error 2".
std::string levelChoices(LevelScale scale);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_LEVELS_H_
