#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "dova/param.h"
#include "private_opt.h"
#include "read_file.h"

namespace {
namespace fs = std::filesystem;

class ParamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KORCOMMON_REQUIRE_PRIVATE_OPT();
    directory_ = "/opt/param_test";
    fs::remove_all(directory_);
  }

  std::string path(const std::string& name) const { return directory_ + "/" + name; }

  void writeFile(const std::string& name, const std::string& content) const {
    fs::create_directories(directory_);
    std::ofstream(path(name), std::ios::binary) << content;
  }

  std::string readFile(const std::string& name) const {
    return korcommon::testing::readFile(path(name));
  }

  std::string directory_;
};

uint64_t bitsOf(double value) {
  uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

TEST_F(ParamTest, MissingFileIsAnEmptyDocument) {
  dova::Param param(path("absent.yaml"));
  std::string text = "untouched";
  std::vector<double> numbers{1.0};
  EXPECT_FALSE(param.get("sn", text));
  EXPECT_FALSE(param.get("joint_offset", numbers));
  EXPECT_EQ(text, "untouched");
  EXPECT_EQ(numbers, std::vector<double>{1.0});
  EXPECT_FALSE(fs::exists(path("absent.yaml"))) << "reading must not create the file";
}

TEST_F(ParamTest, SetCreatesParentsAndReadsBack) {
  const std::string file = directory_ + "/deeper/still/sn.yaml";
  dova::Param(file).set("sn", "RB-0001");
  std::string value;
  EXPECT_TRUE(dova::Param(file).get("sn", value));
  EXPECT_EQ(value, "RB-0001");
}

TEST_F(ParamTest, DoublesRoundTripBitForBit) {
  std::mt19937_64 random(20261121);
  std::vector<double> values = {0.1,
                                -0.0,
                                0.0,
                                1e-310,  // subnormal
                                std::numeric_limits<double>::denorm_min(),
                                std::numeric_limits<double>::max(),
                                -std::numeric_limits<double>::max(),
                                std::numeric_limits<double>::epsilon(),
                                1.0 / 3.0,
                                std::numeric_limits<double>::infinity(),
                                -std::numeric_limits<double>::infinity()};
  while (values.size() < 200) {
    double random_value = 0.0;
    const uint64_t bits = random();
    std::memcpy(&random_value, &bits, sizeof random_value);
    if (std::isfinite(random_value)) values.push_back(random_value);
  }
  dova::Param(path("numbers.yaml")).set("values", values);

  std::vector<double> read_back;
  ASSERT_TRUE(dova::Param(path("numbers.yaml")).get("values", read_back));
  ASSERT_EQ(read_back.size(), values.size());
  for (size_t i = 0; i < values.size(); ++i) {
    EXPECT_EQ(bitsOf(read_back[i]), bitsOf(values[i])) << "element " << i << " = " << values[i];
  }
}

TEST_F(ParamTest, NanSurvivesAsNan) {
  dova::Param(path("nan.yaml")).set("v", std::vector<double>{std::nan("")});
  std::vector<double> read_back;
  ASSERT_TRUE(dova::Param(path("nan.yaml")).get("v", read_back));
  ASSERT_EQ(read_back.size(), 1u);
  EXPECT_TRUE(std::isnan(read_back[0]));
}

TEST_F(ParamTest, StringsComeBackAsTheSameText) {
  // Texts that YAML would otherwise read as null, booleans, numbers or syntax.
  const std::vector<std::string> texts = {"~",      "null",       "yes",     "12",    "0x1F",
                                          "- a",    "a: b",       "#x",      "",      " lead",
                                          "trail ", "line\nfeed", "\"quo\"", "tab\t", "ü→✓"};
  for (const std::string& text : texts) {
    dova::Param(path("text.yaml")).set("sn", text);
    std::string read_back = "unset";
    ASSERT_TRUE(dova::Param(path("text.yaml")).get("sn", read_back)) << text;
    EXPECT_EQ(read_back, text);
  }
}

TEST_F(ParamTest, SetKeepsOtherKeysAndUpdatesInPlace) {
  writeFile("mixed.yaml", "name: robot\nlimits: [1, 2.5]\nnested: {a: 1}\nsn: old\n");
  dova::Param param(path("mixed.yaml"));
  param.set("sn", "new");
  param.set("offsets", std::vector<double>{0.5, -1.25});

  std::string name;
  std::string sn;
  std::vector<double> limits;
  std::vector<double> offsets;
  dova::Param reread(path("mixed.yaml"));
  EXPECT_TRUE(reread.get("name", name));
  EXPECT_TRUE(reread.get("sn", sn));
  EXPECT_TRUE(reread.get("limits", limits));
  EXPECT_TRUE(reread.get("offsets", offsets));
  EXPECT_EQ(name, "robot");
  EXPECT_EQ(sn, "new");
  EXPECT_EQ(limits, (std::vector<double>{1.0, 2.5}));
  EXPECT_EQ(offsets, (std::vector<double>{0.5, -1.25}));
  // The same Param sees its own writes.
  EXPECT_TRUE(param.get("sn", sn));
  EXPECT_EQ(sn, "new");
  // The key keeps its place: "sn" still comes after "nested".
  const std::string text = readFile("mixed.yaml");
  EXPECT_LT(text.find("nested"), text.find("sn"));
}

TEST_F(ParamTest, MalformedOrWrongShapedFilesThrowNamingThePath) {
  const std::vector<std::string> bad_documents = {
      "[1, 2, 3]\n",       // a list, not a mapping
      "just a scalar\n",   // a scalar
      "key: [unclosed\n",  // a syntax error
      "a: 1\na: {\n",      // a syntax error after a good line
  };
  for (const std::string& content : bad_documents) {
    writeFile("bad.yaml", content);
    try {
      dova::Param param(path("bad.yaml"));
      ADD_FAILURE() << "accepted: " << content;
    } catch (const std::runtime_error& error) {
      EXPECT_NE(std::string(error.what()).find(path("bad.yaml")), std::string::npos)
          << error.what();
    }
  }

  writeFile("shapes.yaml", "sn: [1, 2]\nlist: notalist\nwords: [a, b]\nempty:\n");
  dova::Param param(path("shapes.yaml"));
  std::string text;
  std::vector<double> numbers;
  EXPECT_THROW(param.get("sn", text), std::runtime_error);
  EXPECT_THROW(param.get("list", numbers), std::runtime_error);
  EXPECT_THROW(param.get("words", numbers), std::runtime_error);
  EXPECT_FALSE(param.get("empty", text)) << "a null value counts as absent";

  fs::create_directories(path("a_directory.yaml"));
  EXPECT_THROW(dova::Param(path("a_directory.yaml")), std::runtime_error);
}

TEST_F(ParamTest, FailedWriteChangesNothing) {
  dova::Param(path("locked/sn.yaml")).set("sn", "kept");
  const std::string before = readFile("locked/sn.yaml");

  // A read-only mount refuses even root, unlike directory permissions.
  ASSERT_EQ(mount(nullptr, "/opt", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0)
      << std::strerror(errno);
  dova::Param param(path("locked/sn.yaml"));
  try {
    param.set("sn", "lost");
    ADD_FAILURE() << "a write to a read-only file system succeeded";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find(path("locked/sn.yaml")), std::string::npos);
  }
  ASSERT_EQ(mount(nullptr, "/opt", nullptr, MS_REMOUNT, nullptr), 0) << std::strerror(errno);

  std::string value;
  EXPECT_TRUE(param.get("sn", value));
  EXPECT_EQ(value, "kept") << "the Param must not keep a value it could not store";
  EXPECT_EQ(readFile("locked/sn.yaml"), before);
  for (const auto& entry : fs::directory_iterator(path("locked"))) {
    EXPECT_EQ(entry.path().filename(), "sn.yaml") << "temporary file left behind";
  }
}

TEST_F(ParamTest, RewriteKeepsTheFileMode) {
  dova::Param(path("mode.yaml")).set("sn", "a");
  ASSERT_EQ(chmod(path("mode.yaml").c_str(), 0777), 0);
  dova::Param(path("mode.yaml")).set("sn", "b");
  struct stat status {};
  ASSERT_EQ(stat(path("mode.yaml").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0777u);
}

// A writer killed at any moment leaves either the old or the new file.
TEST_F(ParamTest, KilledWriterNeverLeavesATornFile) {
  const std::string file = path("torn.yaml");
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
