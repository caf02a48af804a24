#include "terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace korcommon::cli {

bool outputIsTerminal() { return isatty(STDOUT_FILENO) == 1; }

bool colourWanted(bool no_color_option) {
  if (no_color_option) return false;
  const char* no_color = std::getenv("NO_COLOR");
  if (no_color != nullptr && *no_color != '\0') return false;
  return outputIsTerminal();
}

int terminalColumns() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return 0;
  return size.ws_col;
}

std::string localTimeText(const dova::Time& time) {
  const auto seconds = static_cast<std::time_t>(time.sec);
  std::tm local{};
  localtime_r(&seconds, &local);
  char date[64];
  const size_t length = std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);
  char milliseconds[16];
  std::snprintf(milliseconds, sizeof milliseconds, ".%03u", time.nsec / 1000000u);
  return std::string(date, length) + milliseconds;
}

std::string secondsText(const dova::Time& time) {
  char text[32];
  std::snprintf(text, sizeof text, "%u.%09u", time.sec, time.nsec);
  return text;
}

std::string oneLine(const std::string& text) {
  std::string line;
  line.reserve(text.size());
  for (const char c : text) {
    if (c == '\n') {
      line += "\\n";
    } else if (c == '\r') {
      line += "\\r";
    } else {
      line += c;
    }
  }
  return line;
}

std::string padded(std::string text, size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text;
}

std::string coloured(const char* attribute, const std::string& text) {
  std::string result = attribute;
  result += text;
  result += kReset;
  return result;
}

void writeLine(const std::string& line) {
  std::string whole = line;
  whole += '\n';
  std::fwrite(whole.data(), 1, whole.size(), stdout);
  std::fflush(stdout);
}

}  // namespace korcommon::cli
