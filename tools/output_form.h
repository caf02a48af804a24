#ifndef KORCOMMON_TOOLS_OUTPUT_FORM_H_
#define KORCOMMON_TOOLS_OUTPUT_FORM_H_

#include <string>

namespace CLI {
class App;
}  // namespace CLI

namespace korcommon::cli {

// How an echo command writes what it receives: one line of text, one JSON object per line, or
// CSV (a header row, then a row each).
enum class OutputForm { kText, kJson, kCsv };

// Adds --json and --csv, which exclude each other, to `command`; they set `form`.
// REQUIRES: `form` outlives the parse of the command line.
void addOutputForms(CLI::App& command, OutputForm& form, const std::string& json_help);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_OUTPUT_FORM_H_
