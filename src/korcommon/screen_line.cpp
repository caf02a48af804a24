#include "korcommon/screen_line.h"

#include <cstdio>
#include <ctime>

#include "dova/msgs/dova_msgs/Log.h"

namespace korcommon::detail {
namespace {

using dova::dova_msgs::Log;

constexpr char kColourReset[] = "\033[1;00m";

struct LevelMark {
  char letter;
  const char* colour;
};

LevelMark levelMark(int level) {
  switch (level) {
    case Log::INFO:
      return {'I', kColourReset};
    case Log::WARN:
      return {'W', "\033[1;33m"};
    case Log::ERROR:
      return {'E', "\033[1;31m"};
    case Log::FATAL:
      return {'F', "\033[1;31m"};
    default:
      return {'D', kColourReset};  // DEBUG and unknown levels alike
  }
}

}  // namespace

std::string screenLine(const ScreenLine& fields, bool colour) {
  const auto seconds = static_cast<time_t>(fields.wall.sec);
  tm local{};
  localtime_r(&seconds, &local);
  char date[64];
  const size_t date_length = strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);
  char milliseconds[10];
  snprintf(milliseconds, sizeof milliseconds, "%03d", static_cast<int>(fields.wall.nsec / 1000000));

  const LevelMark mark = levelMark(fields.level);
  std::string line;
  line.reserve(96 + fields.node.size() + fields.file.size() + fields.text.size());
  line.append(date, date_length);
  line += '.';
  line += milliseconds;
  line += ' ';
  line += mark.letter;
  line += '/';
  line += fields.node;
  line += '(';
  line += std::to_string(fields.pid);
  line += '/';
  line += std::to_string(fields.tid);
  line += "): ";
  if (colour) line += mark.colour;
  line += fields.file;
  line += '(';
  line += std::to_string(fields.line);
  line += ") clk(";
  line += std::to_string(fields.clock.sec);
  line += '.';
  line += std::to_string(fields.clock.nsec);
  line += ") ";
  line += fields.text;
  if (colour) line += kColourReset;
  return line;
}

}  // namespace korcommon::detail
