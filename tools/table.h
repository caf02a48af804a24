#ifndef KORCOMMON_TOOLS_TABLE_H_
#define KORCOMMON_TOOLS_TABLE_H_

#include <cstddef>
#include <string>
#include <vector>

namespace korcommon::cli {

// Lays out `rows` of cells (the first row is the header) as lines of left-aligned columns, two
// spaces apart, the last column unpadded. Widths count UTF-8 characters, not bytes.
//
// When `max_width` is not 0 and the widest line is wider, the columns listed in `shrinkable`
// give up width, in that order, each down to the width of its header; their cells are cut to
// fit and end in "...". Other columns are never cut, so that a long message cannot push the
// columns after it off the screen. A line that is still too wide is cut at `max_width`.
std::vector<std::string> layOutTable(const std::vector<std::vector<std::string>>& rows,
                                     size_t max_width, const std::vector<size_t>& shrinkable);

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_TABLE_H_
