#ifndef KORCOMMON_TESTS_SUPPORT_CLI_ROWS_H_
#define KORCOMMON_TESTS_SUPPORT_CLI_ROWS_H_

#include <map>
#include <string>
#include <vector>

namespace korcommon::testing {

// One command line and what it must answer. `out` and `err` are exact texts, except that
// one starting with '~' is a regular expression (ECMAScript) the whole text must match.
struct CliRow {
  std::string why;  // what the row checks
  std::vector<std::string> args;
  int status = 0;
  std::string out;
  std::string err;
  std::string input;  // standard input
};

// The rows of group `group` in tests/data/cli/`file`: a JSON object whose members are
// groups, each an array of rows {"why", "args", "status", "out", "err", "input"} ("out",
// "err" and "input" may be left out when empty). "${NAME}" in any text of a row stands for
// variables[NAME].
std::vector<CliRow> rowsOf(const std::string& file, const std::string& group,
                           const std::map<std::string, std::string>& variables = {});

// Checks `actual` against a row's `expected` text (exact, or a regular expression after '~');
// a failure names `what`.
void expectText(const std::string& actual, const std::string& expected, const char* what);

// Runs each row's command, in turn or, `together`, all at once, and checks its answer; a
// failure names the row.
void expectRows(const std::string& program, const std::vector<CliRow>& rows, bool together = false);

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_SUPPORT_CLI_ROWS_H_
