#ifndef KORCOMMON_TOOLS_USAGE_ERROR_H_
#define KORCOMMON_TOOLS_USAGE_ERROR_H_

#include <string>

namespace CLI {
class App;
class Error;
}  // namespace CLI

namespace korcommon::cli {

// Why the command line parsed by `root` was refused, as one line without the "korcommon: "
// prefix: the first word no command knows, by name ("sig: unknown option \"--bogus\""), or
// the parser's own reason, prefixed with the command it concerns; then where to read more
// ("(see korcommon sig --help)").
std::string usageError(const CLI::App& root, const CLI::Error& error);

// The same line for `word` given to `command`, which has no command or option of that name.
std::string unknownWordError(const CLI::App& command, const std::string& word);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_USAGE_ERROR_H_
