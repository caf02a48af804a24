// The bash completion and the man page the build writes from the tool's command tree.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>

#include "cli_rows.h"
#include "read_file.h"

namespace {

using korcommon::testing::runTool;
using korcommon::testing::ToolResult;

TEST(CliReference, BashCompletionOffersCommandsOptionsAndChoices) {
  // Each row: the words typed (the last one is being completed) and what is offered.
  const std::pair<std::string, std::string> rows[] = {
      {"korcommon s", "sig"},
      {"korcommon sig ", "make inspect"},
      {"korcommon sig make --", "--help --guid --timestamp --json-data"},
      {"korcommon sig make --timestamp 5 --j", "--json-data"},
      {"korcommon sig make --guid ", ""},  // any value: bash offers file names
      {"korcommon sig inspect ", ""},
      {"korcommon imptdata get ", "sn joint-offset joint-limit urdf-dir"},
      {"korcommon imptdata set sn ", ""},
      {"korcommon help imptdata g", "get"},
      {"korcommon help imptdata get ", ""},  // a command path, no values
      {"korcommon --v", "--version"},
  };
  std::string script = "source \"$0\"\n";
  for (const auto& [typed, offered] : rows) {
    script += "COMP_WORDS=(" + typed + (typed.back() == ' ' ? "''" : "") +
              "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _korcommon; echo \"${COMPREPLY[*]}\"\n";
  }
  const ToolResult run = runTool("/bin/bash", {"-c", script, KORCOMMON_COMPLETION});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  std::istringstream lines(run.out);
  for (const auto& [typed, offered] : rows) {
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line, offered) << typed;
  }
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
