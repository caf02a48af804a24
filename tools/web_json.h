#ifndef KORCOMMON_TOOLS_WEB_JSON_H_
#define KORCOMMON_TOOLS_WEB_JSON_H_

#include <string>
#include <string_view>

namespace korcommon::cli {

// `json` with every raw control byte (below 0x20) replaced by its \u escape. The messages' JSON
// rendering leaves such bytes as they are, which browsers refuse inside strings; since that
// rendering writes no white space, every raw control byte it makes sits inside a string and
// the escape keeps its meaning.
// REQUIRES: `json` has no white space between its tokens.
std::string browserJson(std::string_view json);

// {"error":<message>}
std::string errorJson(std::string_view message);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_WEB_JSON_H_
