// Fuzzes parameter files: the input is written as a file and opened with dova::Param.
//
// Everything happens in a private directory this fuzzer creates under the temporary directory
// and removes at exit; it never opens the machine's important data.
//
// Properties:
//  - Opening either loads the file or throws std::runtime_error naming the file.
//  - get() of a few keys, as text and as a list of numbers, either answers or throws
//    std::runtime_error naming the file.
//  - set() of a text and of a list of numbers taken from the input either succeeds, and then a
//    new Param on the file reads back exactly the value (doubles bit for bit) and every other
//    key as before, or throws std::runtime_error and leaves the file byte for byte as it was.
//    set() must succeed when the value and the whole file are printable ASCII and the file has
//    no escapes, no aliases and no collections as mapping keys.
//  - No temporary file is ever left behind.
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "dova/param.h"
#include "fuzz_support.h"
#include "read_file.h"
#include "scratch_directory.h"

namespace {

namespace fs = std::filesystem;
using korcommon::testing::readFile;

// The keys looked at: the important-data store's three, and two a YAML reader might treat
// specially.
const char* const kKeys[] = {"sn", "joint_offset", "joint_limit", "", "~"};

const fs::path& parameterFile() {
  static const korcommon::testing::ScratchDirectory directory("korcommon-param-fuzz");
  static const fs::path file = directory.path() / "param.yaml";
  // Never anywhere near the important data, whatever TMPDIR says.
  FUZZ_CHECK(
      !directory.path().empty() && fs::canonical(file.parent_path()).string().rfind("/opt", 0) != 0,
      "no private directory outside /opt: " + file.string());
  return file;
}

// A runtime_error of Param must say which file it is about.
void checkNamesFile(const std::runtime_error& error) {
  FUZZ_CHECK(std::string(error.what()).rfind(parameterFile().string() + ": ", 0) == 0,
             std::string("an error that does not name the file: ") + error.what());
}

// A value as comparable text: numbers by their bits, or "nan" (written as .nan, which keeps
// neither sign nor payload).
std::string shown(const std::string& text) { return "text " + text; }
std::string shown(const std::vector<double>& numbers) {
  std::string text = "numbers";
  for (const double number : numbers) {
    uint64_t bits = 0;
    std::memcpy(&bits, &number, sizeof bits);
    text += std::isnan(number) ? " nan" : " " + std::to_string(bits);
  }
  return text;
}

// What get() answers for each key, as text and as numbers: the value, absent or thrown.
std::vector<std::string> askAll(const dova::Param& param) {
  std::vector<std::string> all;
  const auto ask = [&param](const char* key, auto value) {
    try {
      return param.get(key, value) ? shown(value) : "absent";
    } catch (const std::runtime_error& error) {
      checkNamesFile(error);
      return std::string("thrown");
    }
  };
  for (const char* key : kKeys) {
    all.push_back(ask(key, std::string()) + "|" + ask(key, std::vector<double>()));
  }
  return all;
}

// Printable ASCII, tab and line feed: text any YAML emitter writes back as it was.
bool isPlainText(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char character) {
    return (character >= 0x20 && character <= 0x7E) || character == '\t' || character == '\n';
  });
}

// Whether every mapping key in `node` is a scalar. yaml-cpp's emitter mishandles collections as
// keys (after "[a, b]: 1" it indents a following "{}: 2" into text it refuses to read), and
// set() must refuse such documents rather than write them.
// REQUIRES: the document has no aliases, which could make the walk loop.
bool hasOnlyScalarKeys(const YAML::Node& node) {
  if (!node.IsMap() && !node.IsSequence()) return true;
  for (const auto& entry : node) {
    if (node.IsMap() ? !entry.first.IsScalar() || !hasOnlyScalarKeys(entry.second)
                     : !hasOnlyScalarKeys(static_cast<const YAML::Node&>(entry))) {
      return false;
    }
  }
  return true;
}

void checkNoStrayFiles() {
  for (const fs::directory_entry& entry : fs::directory_iterator(parameterFile().parent_path())) {
    FUZZ_CHECK(entry.path() == parameterFile(),
               "a file was left behind: " + entry.path().filename().string());
  }
}

// Stores `value` under `key` with `param`: either set() threw naming the file and the file and
// the document stay as they were, or a new Param on the file reads every other key as before and
// this one as `value`.
template <typename Value>
void checkSet(dova::Param& param, const std::string& key, const Value& value, bool must_store) {
  const std::vector<std::string> before = askAll(param);
  const std::string content_before = readFile(parameterFile());
  try {
    param.set(key, value);
  } catch (const std::runtime_error& error) {
    checkNamesFile(error);
    FUZZ_CHECK(!must_store, "set() of " + key + " failed: " + error.what());
    FUZZ_CHECK(readFile(parameterFile()) == content_before, "a failed set() changed the file");
    FUZZ_CHECK(askAll(param) == before, "a failed set() changed the document");
    checkNoStrayFiles();
    return;
  }
  checkNoStrayFiles();
  // A file set() wrote that does not load throws here, which ends the run as a crash.
  const dova::Param reopened(parameterFile().string());
  const std::vector<std::string> after = askAll(reopened);
  Value back{};
  FUZZ_CHECK(reopened.get(key, back), "the value set() stored is missing");
  FUZZ_CHECK(shown(back) == shown(value), "set() stored " + shown(back) + " for " + key);
  FUZZ_CHECK(askAll(param) == after, "the document and the file it wrote disagree");
  for (size_t index = 0; index < after.size(); ++index) {
    FUZZ_CHECK(kKeys[index] == key || after[index] == before[index],
               std::string("set() changed the key \"") + kKeys[index] + "\"");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string content(reinterpret_cast<const char*>(data), size);
  korcommon::testing::writeFile(parameterFile(), content);
  std::unique_ptr<dova::Param> param;
  try {
    param = std::make_unique<dova::Param>(parameterFile().string());
  } catch (const std::runtime_error& error) {
    checkNamesFile(error);
    checkNoStrayFiles();
    return 0;
  }

  // Values from the input itself: its last bytes as a serial number, its first as doubles.
  const std::string serial_number = content.substr(size - std::min<size_t>(size, 24));
  std::vector<double> numbers(std::min<size_t>(size / sizeof(double), 4));
  if (!numbers.empty()) std::memcpy(numbers.data(), data, numbers.size() * sizeof(double));

  // Every value of a plain file without escapes (which can spell any code point), without
  // aliases (which can multiply a tree beyond what set() compares) and without collections as
  // keys can be written back. Param read the file with yaml-cpp, so yaml-cpp reads it here too.
  const bool rewritable = isPlainText(content) &&
                          content.find_first_of("\\*") == std::string::npos &&
                          hasOnlyScalarKeys(YAML::Load(content));
  checkSet(*param, "sn", serial_number, rewritable && isPlainText(serial_number));
  // A plain style would lose a closing carriage return; set() must then quote the text.
  checkSet(*param, "sn", serial_number + "\r", rewritable && isPlainText(serial_number));
  checkSet(*param, "joint_offset", numbers, rewritable);
  return 0;
}
