#ifndef KORCOMMON_SCREEN_LINE_H_
#define KORCOMMON_SCREEN_LINE_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "dova/time.h"

namespace korcommon::detail {

// What one screen line of the trace logger shows.
struct ScreenLine {
  dova::Time wall;        // the date, time and milliseconds, shown as local time
  int level = 0;          // a dova_msgs::Log level; any other value shows as DEBUG
  std::string_view node;  // the node's name
  int64_t pid = 0;
  int32_t tid = 0;
  std::string_view file;  // the source file's last path component
  int64_t line = 0;
  dova::Time clock;  // the middleware clock, shown as "clk(<s>.<ns>)"
  std::string_view text;
};

// The screen line of the trace logger, without the line feed:
//   <YYYY-MM-DD HH:MM:SS.mmm> <L>/<node>(<pid>/<tid>): <file>(<line>) clk(<s>.<ns>) <text>
// with L one of D, I, W, E, F. With `colour`, the level's colour is switched on before the
// file name and reset after the text. Thread-safe.
std::string screenLine(const ScreenLine& fields, bool colour);

}  // namespace korcommon::detail

#endif  // KORCOMMON_SCREEN_LINE_H_
