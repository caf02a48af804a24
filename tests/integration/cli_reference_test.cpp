// The bash completion and the man page the build writes from the tool's command tree.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "cli_rows.h"
#include "read_file.h"

namespace {

using korcommon::testing::runTool;
using korcommon::testing::ToolResult;

TEST(CliReference, BashCompletionOffersCommandsOptionsAndChoices) {
  // Each row gives the words typed, the last one being completed, and what is offered.
  korcommon::testing::expectRows(
      "/bin/bash", korcommon::testing::rowsOf(
                       "reference.json", "completion",
                       {{"COMPLETION", KORCOMMON_COMPLETION},
                        {"COMPLETE", R"(source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); )"
                                     R"(_korcommon; echo "${COMPREPLY[*]}")"}}));
}

TEST(CliReference, ManPageRendersEveryCommandWithoutWarnings) {
  const ToolResult run =
      runTool("/usr/bin/groff", {"-man", "-Tascii", "-ww", "-P-cbou", KORCOMMON_MAN_PAGE});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "") << "roff warnings";
  // Every command of the completion's tree has its section, its usage line as typed.
  const std::string completion = korcommon::testing::readFile(KORCOMMON_COMPLETION);
  const std::string table_start = "local -A subcommands=(\n";
  std::istringstream table(completion.substr(completion.find(table_start) + table_start.size()));
  int commands = 0;
  for (std::string line; std::getline(table, line) && line != "  )";) {
    const std::string path =
        line.substr(line.find("['") + 2, line.find("']") - line.find("['") - 2);
    if (path == "korcommon") continue;
    ++commands;
    EXPECT_NE(run.out.find("\n   " + path + "\n"), std::string::npos) << path;
    EXPECT_NE(run.out.find("\n       " + path + " [OPTIONS]"), std::string::npos) << path;
  }
  EXPECT_GE(commands, 7);
  EXPECT_NE(run.out.find("ITEM   What to print: sn, joint-offset, joint-limit, urdf-dir"),
            std::string::npos);
}

}  // namespace
