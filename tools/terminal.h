#ifndef KORCOMMON_TOOLS_TERMINAL_H_
#define KORCOMMON_TOOLS_TERMINAL_H_

#include <string>

#include "dova/time.h"

namespace korcommon::cli {

// ANSI attributes of the live commands' output.
inline constexpr char kReset[] = "\033[0m";
inline constexpr char kGreen[] = "\033[32m";
inline constexpr char kYellow[] = "\033[1;33m";
inline constexpr char kRed[] = "\033[1;31m";
inline constexpr char kDim[] = "\033[2m";
inline constexpr char kClearScreen[] = "\033[H\033[2J";

// Whether standard output gets colour: only on a terminal, never with --no-color, and not
// when NO_COLOR is set (the common convention for turning colour off everywhere).
bool colourWanted(bool no_color_option);

// Whether standard output is a terminal.
bool outputIsTerminal();

// Columns of the terminal on standard output; 0 when unknown.
int terminalColumns();

// `time` as local time, "YYYY-MM-DD HH:MM:SS.mmm".
std::string localTimeText(const dova::Time& time);

// `time` as seconds with nine decimals, e.g. "1700000000.000000042".
std::string secondsText(const dova::Time& time);

// `text` with line feeds and carriage returns shown as \n and \r, so one report or record
// stays one line of output.
std::string oneLine(const std::string& text);

// `text` with spaces appended up to `width` characters; longer text is left as it is.
std::string padded(std::string text, size_t width);

// `text` in the ANSI attribute `attribute` (one of the above, or "" for none), with the
// attributes reset after it.
std::string coloured(const char* attribute, const std::string& text);

// Writes `line` and a line feed to standard output and flushes at once, so that a reader
// at the other end of a pipe sees every line as soon as it is complete.
void writeLine(const std::string& line);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_TERMINAL_H_
