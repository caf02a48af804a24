// Fuzzes parameter files: the input is written as a file and opened with dova::Param.
//
// Everything happens in a private directory this fuzzer creates under the temporary directory
// ($TMPDIR or /tmp) and removes at exit; it never opens the machine's important data.
//
// Properties:
//  - Opening either loads the file or throws std::runtime_error naming the file.
//  - get() of a few keys, as text and as a list of numbers, either answers or throws
//    std::runtime_error naming the file.
//  - set() of a text and of a list of numbers taken from the input either succeeds, and then a
//    new Param on the file reads back exactly the value (doubles bit for bit) and every other
//    key as before, or throws std::runtime_error and leaves the file byte for byte as it was.
//    set() must succeed when the value and the whole file are text YAML can hold (valid UTF-8
//    without noncharacters, in the characters YAML allows) and the file has no escapes, no
//    aliases and no collections as mapping keys.
//  - No temporary file is ever left behind.
#include <unistd.h>
#include <yaml-cpp/yaml.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <type_traits>
#include <vector>

#include "dova/param.h"
#include "fuzz_check.h"

namespace {

namespace fs = std::filesystem;

// The keys looked at: the important-data store's three, and two a YAML reader might treat
// specially.
const char* const kKeys[] = {"sn", "joint_offset", "joint_limit", "", "~"};

fs::path& privateDirectory() {
  static fs::path directory;
  return directory;
}

void removePrivateDirectory() {
  std::error_code error;
  if (!privateDirectory().empty()) fs::remove_all(privateDirectory(), error);
}

fs::path parameterFile() { return privateDirectory() / "param.yaml"; }

std::string fileContent(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void writeFile(const fs::path& path, const uint8_t* data, size_t size) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  FUZZ_CHECK(file.good(), "cannot write the input file " + path.string());
}

// A runtime_error of Param must say which file it is about.
void checkNamesFile(const std::runtime_error& error) {
  const std::string prefix = parameterFile().string() + ": ";
  FUZZ_CHECK(std::string(error.what()).rfind(prefix, 0) == 0,
             std::string("an error that does not name the file: ") + error.what());
}

// What get() answers for one key, as text and as numbers: found, thrown or absent.
struct Answer {
  enum Outcome { kAbsent, kFound, kThrown };
  Outcome text_outcome = kAbsent;
  std::string text;
  Outcome numbers_outcome = kAbsent;
  std::vector<double> numbers;
};

bool sameDouble(double left, double right) {
  // NaN is written as .nan, which keeps neither its sign nor its payload.
  if (std::isnan(left) || std::isnan(right)) return std::isnan(left) && std::isnan(right);
  return std::memcmp(&left, &right, sizeof left) == 0;
}

bool sameNumbers(const std::vector<double>& left, const std::vector<double>& right) {
  if (left.size() != right.size()) return false;
  for (size_t index = 0; index < left.size(); ++index) {
    if (!sameDouble(left[index], right[index])) return false;
  }
  return true;
}

bool operator==(const Answer& left, const Answer& right) {
  return left.text_outcome == right.text_outcome && left.text == right.text &&
         left.numbers_outcome == right.numbers_outcome && sameNumbers(left.numbers, right.numbers);
}

Answer ask(const dova::Param& param, const std::string& key) {
  Answer answer;
  try {
    answer.text_outcome = param.get(key, answer.text) ? Answer::kFound : Answer::kAbsent;
  } catch (const std::runtime_error& error) {
    checkNamesFile(error);
    answer.text_outcome = Answer::kThrown;
  }
  try {
    answer.numbers_outcome = param.get(key, answer.numbers) ? Answer::kFound : Answer::kAbsent;
  } catch (const std::runtime_error& error) {
    checkNamesFile(error);
    answer.numbers_outcome = Answer::kThrown;
  }
  return answer;
}

std::vector<Answer> askAll(const dova::Param& param) {
  std::vector<Answer> answers;
  for (const char* key : kKeys) answers.push_back(ask(param, key));
  return answers;
}

size_t keyIndex(const std::string& key) {
  for (size_t index = 0; index < std::size(kKeys); ++index) {
    if (key == kKeys[index]) return index;
  }
  return std::size(kKeys);
}

// Text a YAML file can hold: strict UTF-8 (shortest forms only, no surrogates, nothing above
// U+10FFFF) without noncharacters (U+FDD0 to U+FDEF, and the last two code points of every
// plane), which the emitter replaces.
bool isStorableText(const std::string& text) {
  size_t next = 0;
  while (next < text.size()) {
    const auto lead = static_cast<unsigned char>(text[next]);
    size_t length = 0;
    uint32_t code = 0;
    if (lead < 0x80) {
      length = 1;
      code = lead;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
      code = lead & 0x1Fu;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      code = lead & 0x0Fu;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      code = lead & 0x07u;
    } else {
      return false;
    }
    if (text.size() - next < length) return false;
    for (size_t index = 1; index < length; ++index) {
      const auto continuation = static_cast<unsigned char>(text[next + index]);
      if ((continuation & 0xC0) != 0x80) return false;
      code = (code << 6) | (continuation & 0x3Fu);
    }
    if ((length == 3 && (code < 0x800 || (code >= 0xD800 && code <= 0xDFFF))) ||
        (length == 4 && (code < 0x10000 || code > 0x10FFFF)) ||
        (code >= 0xFDD0 && code <= 0xFDEF) || (code & 0xFFFE) == 0xFFFE) {
      return false;
    }
    next += length;
  }
  return true;
}

// Whether `text` holds only the characters YAML allows in a stream: tab, line feed, carriage
// return, and everything printable from the space on but DEL and the C1 controls other than
// NEL. yaml-cpp's reader mangles others (a NUL byte can turn the next character into a stray
// continuation byte). REQUIRES: isStorableText(text).
bool isPrintable(const std::string& text) {
  for (size_t next = 0; next < text.size(); ++next) {
    const auto byte = static_cast<unsigned char>(text[next]);
    if (byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r') return false;
    if (byte == 0x7F) return false;
    // U+0080 to U+009F are 0xC2 0x80 to 0xC2 0x9F in UTF-8; U+0085 is allowed.
    if (byte == 0xC2 && next + 1 < text.size()) {
      const auto second = static_cast<unsigned char>(text[next + 1]);
      if (second <= 0x9F && second != 0x85) return false;
    }
  }
  return true;
}

// Whether every mapping key in `node` is a scalar. yaml-cpp's emitter mishandles collections as
// keys (after "[a, b]: 1" it indents a following "{}: 2" into text it refuses to read), and
// set() must refuse such documents rather than write them.
bool hasOnlyScalarKeys(const YAML::Node& node) {
  if (node.IsMap()) {
    for (const auto& entry : node) {
      if (!entry.first.IsScalar() || !hasOnlyScalarKeys(entry.second)) return false;
    }
  } else if (node.IsSequence()) {
    for (const YAML::Node& element : node) {
      if (!hasOnlyScalarKeys(element)) return false;
    }
  }
  return true;
}

// REQUIRES: `content` has no aliases, which could make the walk loop.
bool hasOnlyScalarKeys(const std::string& content) {
  try {
    return hasOnlyScalarKeys(YAML::Load(content));
  } catch (const YAML::Exception&) {
    return false;
  }
}

void checkNoStrayFiles() {
  for (const fs::directory_entry& entry : fs::directory_iterator(privateDirectory())) {
    FUZZ_CHECK(entry.path() == parameterFile(),
               "a file was left behind: " + entry.path().filename().string());
  }
}

// Stores `value` under `key` with `param`, then checks the file and the document.
template <typename Value>
void checkSet(dova::Param& param, const std::string& key, const Value& value, bool must_store,
              const std::string& what) {
  const std::vector<Answer> before = askAll(param);
  const std::string content_before = fileContent(parameterFile());
  try {
    param.set(key, value);
  } catch (const std::runtime_error& error) {
    checkNamesFile(error);
    FUZZ_CHECK(!must_store, "set() of " + what + " failed: " + error.what());
    FUZZ_CHECK(fileContent(parameterFile()) == content_before,
               std::string("a failed set() changed the file: ") + error.what());
    FUZZ_CHECK(askAll(param) == before, "a failed set() changed the document");
    checkNoStrayFiles();
    return;
  }
  checkNoStrayFiles();

  std::unique_ptr<dova::Param> reopened;
  try {
    reopened = std::make_unique<dova::Param>(parameterFile().string());
  } catch (const std::runtime_error& error) {
    FUZZ_CHECK(false, "the file set() wrote does not load: " + std::string(error.what()) + "\n" +
                          fileContent(parameterFile()));
  }
  const size_t changed = keyIndex(key);
  const std::vector<Answer> after = askAll(*reopened);
  FUZZ_CHECK(askAll(param) == after, "the document and the file it wrote disagree");
  for (size_t index = 0; index < after.size(); ++index) {
    if (index == changed) continue;
    FUZZ_CHECK(after[index] == before[index],
               std::string("set() changed the key \"") + kKeys[index] + "\"");
  }
  Value back;
  FUZZ_CHECK(reopened->get(key, back), "the value set() stored is missing");
  if constexpr (std::is_same_v<Value, std::string>) {
    FUZZ_CHECK(back == value, "set() stored \"" + back + "\" for " + what);
  } else {
    FUZZ_CHECK(sameNumbers(back, value), "set() stored other numbers for " + what);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  std::error_code error;
  const fs::path base = fs::temp_directory_path(error);
  std::string pattern = (error ? fs::path("/tmp") : base) / "korcommon-param-fuzz-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    std::perror("param fuzzer: mkdtemp");
    std::exit(1);
  }
  privateDirectory() = fs::canonical(pattern);
  // Never anywhere near the important data, whatever TMPDIR says.
  if (privateDirectory().string().rfind("/opt", 0) == 0) {
    std::fprintf(stderr, "param fuzzer: refusing to work under /opt\n");
    removePrivateDirectory();
    std::exit(1);
  }
  std::atexit(removePrivateDirectory);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  writeFile(parameterFile(), data, size);

  std::unique_ptr<dova::Param> param;
  try {
    param = std::make_unique<dova::Param>(parameterFile().string());
  } catch (const std::runtime_error& error) {
    checkNamesFile(error);
    checkNoStrayFiles();
    return 0;
  }
  askAll(*param);

  // Values from the input itself: its last bytes as a serial number, its first as doubles.
  const size_t text_size = size < 24 ? size : 24;
  const std::string serial_number(reinterpret_cast<const char*>(data) + (size - text_size),
                                  text_size);
  std::vector<double> numbers(size / sizeof(double) < 4 ? size / sizeof(double) : 4);
  if (!numbers.empty()) std::memcpy(numbers.data(), data, numbers.size() * sizeof(double));

  // Every value of a file in storable text without escapes (which can spell any code point),
  // without aliases (which can multiply a tree beyond what set() compares) and without
  // collections as keys can be written back.
  const std::string content(reinterpret_cast<const char*>(data), size);
  const bool rewritable = isStorableText(content) && isPrintable(content) &&
                          content.find_first_of("\\*") == std::string::npos &&
                          hasOnlyScalarKeys(content);
  checkSet(*param, "sn", serial_number, rewritable && isStorableText(serial_number),
           "a serial number");
  checkSet(*param, "joint_offset", numbers, rewritable, "joint offsets");
  return 0;
}
