// The tool's table layout: what gives way when a table is wider than the terminal.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "table.h"

namespace {

using korcommon::cli::layOutTable;
using Lines = std::vector<std::string>;

TEST(CliTable, TheMessageThenTheNameGiveWayNeverTheLastColumns) {
  // Widths 9 + 2 + 4 + 2 + 20 + 2 + 3 = 42; "ü" is one character in two bytes.
  const std::vector<std::vector<std::string>> rows = {
      {"NAME", "CODE", "MESSAGE", "AGE"},
      {"knee/left", "101", "hot, motor derated ü", "2s"},
      {"imu", "0", "ok", "12s"}};
  constexpr size_t kName = 0;
  constexpr size_t kMessage = 2;
  struct Case {
    size_t max_width;
    Lines lines;
  };
  const std::vector<Case> cases = {
      {0,
       {"NAME       CODE  MESSAGE               AGE", "knee/left  101   hot, motor derated ü  2s",
        "imu        0     ok                    12s"}},
      {42,
       {"NAME       CODE  MESSAGE               AGE", "knee/left  101   hot, motor derated ü  2s",
        "imu        0     ok                    12s"}},
      {40,
       {"NAME       CODE  MESSAGE             AGE", "knee/left  101   hot, motor dera...  2s",
        "imu        0     ok                  12s"}},
      // The message down to its header's width, then the name.
      {27,
       {"NAME     CODE  MESSAGE  AGE", "knee...  101   hot,...  2s",
        "imu      0     ok       12s"}},
      // Nothing left to give: the line itself is cut.
      {20, {"NAME  CODE  MESSAGE ", "k...  101   hot,... ", "imu   0     ok      "}},
  };
  for (const Case& test : cases) {
    EXPECT_EQ(layOutTable(rows, test.max_width, {kMessage, kName}), test.lines)
        << "max width " << test.max_width;
  }
}

}  // namespace
