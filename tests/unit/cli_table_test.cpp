// The tool's table layout: what gives way when a table is wider than the terminal.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "table.h"
#include "table_rows.h"

namespace {

TEST(CliTable, TheMessageThenTheNameGiveWayNeverTheLastColumns) {
  const std::vector<std::vector<std::string>> rows = {
      {"NAME", "CODE", "MESSAGE", "AGE"},
      {"knee/left", "101", "hot, motor derated \xc3\xbc", "2s"},
      {"imu", "0", "ok", "12s"}};
  // The message (column 2) gives way first, then the name (column 0).
  for (const auto& row : korcommon::testing::tableRows("table/layout.txt", 5)) {
    EXPECT_EQ(korcommon::cli::layOutTable(rows, std::stoul(row[0]), {2, 0}),
              std::vector<std::string>(row.begin() + 1, row.end() - 1))
        << row[4];
  }
}

}  // namespace
