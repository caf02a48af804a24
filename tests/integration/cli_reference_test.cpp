// The bash completion and the man page the build writes from the tool's command tree.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "child_process.h"
#include "cli_rows.h"
#include "read_file.h"

namespace {

using korcommon::testing::ChildProcess;
using ::testing::HasSubstr;

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
  ChildProcess groff("/usr/bin/groff", {"-man", "-Tascii", "-ww", "-P-cbou", KORCOMMON_MAN_PAGE});
  ASSERT_EQ(groff.wait(), 0) << groff.errors();
  EXPECT_EQ(groff.errors(), "") << "roff warnings";
  const std::string page = groff.output();
  // Every command of the completion's tree has its section, its usage line as typed.
  const std::string completion = korcommon::testing::readFile(KORCOMMON_COMPLETION);
  const size_t start = completion.find("local -A subcommands=(");
  const std::string tree = completion.substr(start, completion.find("\n  )", start) - start);
  const std::regex command(R"(\['(korcommon [^']+)'\]=)");
  int commands = 0;
  for (std::sregex_iterator at(tree.begin(), tree.end(), command), end; at != end; ++at) {
    ++commands;
    EXPECT_THAT(page, HasSubstr("\n   " + at->str(1) + "\n"));
    EXPECT_THAT(page, HasSubstr("\n       " + at->str(1) + " [OPTIONS]"));
  }
  EXPECT_GE(commands, 7);
  EXPECT_THAT(page, HasSubstr("ITEM   What to print: sn, joint-offset, joint-limit, urdf-dir"));
}

}  // namespace
