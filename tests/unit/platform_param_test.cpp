#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "dova/param.h"
#include "private_opt.h"
#include "read_file.h"

namespace {
namespace fs = std::filesystem;

using korcommon::testing::readFile;
using korcommon::testing::writeFile;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::ThrowsMessage;

// Each test starts from an empty directory on the private /opt.
const std::string kDirectory = "/opt/param_test/";

TEST(Param, ValuesComeBackExactlyAndBadFilesThrowNamingThePath) {
  KORCOMMON_REQUIRE_PRIVATE_OPT();
  fs::remove_all(kDirectory);
  fs::create_directories(kDirectory);
  dova::Param absent(kDirectory + "absent.yaml");
  std::string text = "untouched";
  std::vector<double> numbers{1.0};
  EXPECT_FALSE(absent.get("sn", text) || absent.get("joint_offset", numbers));
  EXPECT_EQ(text + std::to_string(numbers.size()), "untouched1");
  EXPECT_FALSE(fs::exists(kDirectory + "absent.yaml")) << "reading must not create the file";

  // Doubles bit for bit (NaN as NaN), in a file whose parents set() creates. Arbitrary bit
  // patterns are the parameter fuzzer's.
  using limits = std::numeric_limits<double>;
  std::vector<double> values({0.1, -0.0, 1e-310, limits::denorm_min(), limits::max(), 1.0 / 3,
                              -2.0 / 7, 123456789.00000012, limits::infinity(), -limits::infinity(),
                              std::nan("")});
  const std::string deep = kDirectory + "deeper/still/values.yaml";
  dova::Param(deep).set("values", values);
  std::vector<double> read_back;
  ASSERT_TRUE(dova::Param(deep).get("values", read_back));
  ASSERT_EQ(read_back.size(), values.size());
  EXPECT_TRUE(std::isnan(read_back.back()));
  read_back.back() = values.back() = 0;
  EXPECT_EQ(std::memcmp(read_back.data(), values.data(), values.size() * sizeof(double)), 0);

  // Texts that YAML would otherwise read as null, booleans, numbers or syntax, each set in place
  // of a key between others. That every other key survives is the parameter fuzzer's property;
  // here the key's place, the file's mode, and what the Param itself and a new reader see.
  const std::string file = kDirectory + "mixed.yaml";
  writeFile(file, "name: robot\nnested: {a: 1}\nsn: old\nlast: 1\n");
  fs::permissions(file, fs::perms::all);
  dova::Param param(file);
  for (const std::string stored : {"~", "null", "yes", "12", "0x1F", "- a", "a: b", "#x", "",
                                   " lead", "trail ", "line\nfeed", "\"quo\"", "tab\t", "ü→✓"}) {
    param.set("sn", stored);
    std::string own = "unset";
    std::string fresh = "unset";
    ASSERT_TRUE(param.get("sn", own) && dova::Param(file).get("sn", fresh)) << stored;
    EXPECT_EQ(own + "|" + fresh, stored + "|" + stored);
    EXPECT_THAT(readFile(file), MatchesRegex("name: robot\nnested: \\{a: 1\\}\nsn: .*\nlast: 1\n"))
        << stored;
  }
  EXPECT_EQ(fs::status(file).permissions(), fs::perms::all);

  // A list or a scalar, not a mapping, and syntax errors, one after a good line.
  for (const std::string content :
       {"[1, 2, 3]\n", "just a scalar\n", "key: [unclosed\n", "a: 1\na: {\n"}) {
    writeFile(kDirectory + "bad.yaml", content);
    EXPECT_THAT([] { dova::Param(kDirectory + "bad.yaml"); },
                ThrowsMessage<std::runtime_error>(HasSubstr(kDirectory + "bad.yaml")))
        << content;
  }

  writeFile(kDirectory + "shapes.yaml", "sn: [1, 2]\nlist: notalist\nwords: [a, b]\nempty:\n");
  const dova::Param shapes(kDirectory + "shapes.yaml");
  EXPECT_THROW(shapes.get("sn", text), std::runtime_error);
  EXPECT_THROW(shapes.get("list", numbers), std::runtime_error);
  EXPECT_THROW(shapes.get("words", numbers), std::runtime_error);
  EXPECT_FALSE(shapes.get("empty", text)) << "a null value counts as absent";

  fs::create_directories(kDirectory + "a_directory.yaml");
  EXPECT_THROW(dova::Param(kDirectory + "a_directory.yaml"), std::runtime_error);
}

// A write is all or nothing. A read-only file system refuses before anything is written; a full
// one in the middle of the write. Either way the file, the Param and the directory stay as they
// were.
TEST(Param, AWriteIsAllOrNothing) {
  KORCOMMON_REQUIRE_PRIVATE_OPT();
  fs::remove_all(kDirectory);
  fs::create_directories(kDirectory);
  const std::string locked = kDirectory + "locked";
  fs::create_directories(locked);
  ASSERT_EQ(mount("tmpfs", locked.c_str(), "tmpfs", 0, "size=64k"), 0) << std::strerror(errno);
  dova::Param param(locked + "/sn.yaml");
  param.set("sn", "kept");
  const std::string before = readFile(locked + "/sn.yaml");
  writeFile(locked + "/filler", std::string(60 * 1024, 'f'));
  for (const unsigned long read_only : {static_cast<unsigned long>(MS_RDONLY), 0ul}) {
    ASSERT_EQ(mount(nullptr, locked.c_str(), nullptr, MS_REMOUNT | read_only, nullptr), 0);
    EXPECT_THAT([&] { param.set("sn", std::string(16 * 1024, 'x')); },
                ThrowsMessage<std::runtime_error>(HasSubstr(locked + "/sn.yaml")))
        << "a write to a " << (read_only ? "read-only" : "full") << " file system";
    std::string value;
    EXPECT_TRUE(param.get("sn", value) && value == "kept") << "a value it could not store";
    EXPECT_EQ(readFile(locked + "/sn.yaml"), before);
    EXPECT_EQ(std::distance(fs::directory_iterator(locked), {}), 2) << "a temporary file left";
  }
  umount(locked.c_str());

  // A writer killed at any moment leaves either the old or the new file.
  const std::string file = kDirectory + "torn.yaml";
  const std::vector<double> first(64, 1.0 / 3.0);
  const std::vector<double> second(64, 2.0 / 3.0);
  dova::Param(file).set("values", first);

  int rounds_with_second = 0;
  for (int round = 0; round < 40; ++round) {
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
      for (int i = 0;; ++i) dova::Param(file).set("values", i % 2 == 0 ? second : first);
    }
    usleep(static_cast<useconds_t>(500 + round * 100));
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);

    std::vector<double> values;
    ASSERT_NO_THROW(dova::Param(file).get("values", values)) << "round " << round;
    EXPECT_TRUE(values == first || values == second) << "round " << round;
    if (values == second) ++rounds_with_second;
  }
  EXPECT_GT(rounds_with_second, 0) << "the writer never got to write: the test proves nothing";
}

}  // namespace
