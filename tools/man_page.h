#ifndef KORCOMMON_TOOLS_MAN_PAGE_H_
#define KORCOMMON_TOOLS_MAN_PAGE_H_

#include <ostream>
#include <string>

namespace CLI {
class App;
}  // namespace CLI

namespace korcommon::cli {

// Writes the manual page (roff, section 1) of the command tree of `root`: every command with
// its usage, positionals, options and the text that ends its help. The build runs it, so
// the page always matches the commands as registered.
void writeManPage(const CLI::App& root, const std::string& version, std::ostream& out);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_MAN_PAGE_H_
