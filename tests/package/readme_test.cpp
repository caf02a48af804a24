// README.md followed literally, as a new user would: its programs are saved under the
// names their first lines give, then its shell blocks run in order in one bash session
// whose home is a scratch directory, against this build installed there.
#include <gtest/gtest.h>

#include <chrono>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>

#include "child_process.h"
#include "dds_domain.h"
#include "private_opt.h"
#include "read_file.h"
#include "scratch_directory.h"

namespace {

// Runs before the page's commands, at home in the scratch directory. "make install PREFIX=P" stands
// for what it does once the tree is built; with sanitizers, what the page compiles needs their
// runtime too.
constexpr char kPreamble[] = R"(set -euxo pipefail
build_dir=$0 sanitizers=$1
export HOME=$2
cd "$HOME"
make() {
  [[ $# == 2 && $1 == install && $2 == PREFIX=* ]] || { echo "unexpected: make $*" >&2; return 1; }
  cmake --install "$build_dir" --prefix "${2#PREFIX=}" > /dev/null
}
if [[ -n $sanitizers ]]; then
  c++() { command c++ "-fsanitize=$sanitizers" "$@"; }
  export CXXFLAGS="-fsanitize=$sanitizers"
fi
)";

TEST(Readme, EveryStepWorksAsWritten) {
  KORCOMMON_REQUIRE_PRIVATE_OPT();  // the page reads the serial number in /opt
  korcommon::testing::claimDdsDomain();
  const korcommon::testing::ScratchDirectory home("korcommon_readme");

  std::string script = kPreamble;
  std::istringstream page(korcommon::testing::readFile(KORCOMMON_README));
  // A shell block runs unless the line before it is "<!-- readme-test: not run ... -->"; a
  // program is saved as the file its first line names: "// NAME: ..." or "# NAME".
  const std::regex first_line(R"(^(//|#) ([A-Za-z_]+\.(cpp|txt))(:.*)?\n)");
  for (std::string line, before; std::getline(page, line); before = line) {
    if (line.rfind("```", 0) != 0) continue;
    std::string text;
    for (std::string code; std::getline(page, code) && code != "```";) text += code + '\n';
    std::smatch name;
    if (line == "```sh") {
      if (before.rfind("<!-- readme-test: not run", 0) != 0) script += text;
    } else if (std::regex_search(text, name, first_line)) {
      korcommon::testing::writeFile(home.path() / name[2].str(), text);
    } else {
      ADD_FAILURE() << "a " << line << " block names no file:\n" << text;
    }
  }
  korcommon::testing::ChildProcess run(
      "/bin/bash", {"-c", script, KORCOMMON_BUILD_DIR, KORCOMMON_SANITIZERS, home.path()});
  ASSERT_EQ(run.wait(std::chrono::minutes(4)), 0) << run.output() << run.errors();
  const std::string out = run.output();

  // What the page says these steps print, each pattern with the number of times.
  const std::pair<const char*, int> printed[] = {
      {"korcommon " KORCOMMON_VERSION "\n", 1},
      {"\nvalid\n", 2},                                    // sig inspect
      {"\nserial number: \\(none\\)\n", 1},                // imptdata show
      {"WARN +battery/charge \\[201\\] 19 % left", 1},     // diag echo --once
      {"\\{\"name\":\"battery/charge\",\"level\":1,", 1},  // diag echo --once --json
      {"pose at 1[0-9]{12} ms\n", 2},                      // envelope, CMake and pkg-config
      {"battery/charge level [0-2] code 201: [0-9]+ % left\n", 3},        // follower
      {"battery/charge \\[201\\] [0-9]+ % left  \\(from battery\\)", 1},  // diag echo
  };
  for (const auto& [pattern, times] : printed) {
    const std::regex expression(pattern);
    EXPECT_EQ(std::distance(std::sregex_iterator(out.begin(), out.end(), expression), {}), times)
        << pattern << '\n'
        << out;
  }
}

}  // namespace
