#include "dova/param.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <yaml-cpp/yaml.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace dova {
namespace fs = std::filesystem;

struct Param::Document {
  YAML::Node root;  // always a map
};

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& reason) {
  throw std::runtime_error(path + ": " + reason);
}

std::string errnoText(int error) {
  return std::error_code(error, std::generic_category()).message();
}

// The shortest text that reads back as exactly `value`.
std::string exactDoubleText(double value) {
  if (std::isnan(value)) return ".nan";
  if (std::isinf(value)) return value < 0 ? "-.inf" : ".inf";
  char buffer[32];
  const std::to_chars_result result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

YAML::Node loadDocument(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    if (errno == ENOENT) return YAML::Node(YAML::NodeType::Map);
    fail(path, errnoText(errno));
  }
  if (!S_ISREG(status.st_mode)) fail(path, "not a regular file");

  std::ifstream file(path, std::ios::binary);
  if (!file) fail(path, "cannot open for reading: " + errnoText(errno));
  std::ostringstream content;
  content << file.rdbuf();
  if (file.bad()) fail(path, "read error");

  YAML::Node root;
  try {
    root = YAML::Load(content.str());
  } catch (const YAML::Exception& error) {
    fail(path, std::string("malformed YAML: ") + error.what());
  }
  if (root.IsNull()) return YAML::Node(YAML::NodeType::Map);  // an empty file
  if (!root.IsMap()) fail(path, "not a YAML mapping of keys to values");
  return root;
}

// The value under `key`, or an undefined node when there is none. A key whose
// value is null ("key:" or "key: ~") counts as absent.
YAML::Node lookup(const YAML::Node& root, const std::string& key) {
  const YAML::Node value = root[key];
  if (!value.IsDefined() || value.IsNull()) return YAML::Node(YAML::NodeType::Undefined);
  return value;
}

void emitValue(YAML::Emitter& out, const std::string& value) {
  // Quoted, so that texts such as "~", "yes" or "12" come back as the same text.
  out << YAML::DoubleQuoted << value;
}

void emitValue(YAML::Emitter& out, const std::vector<double>& values) {
  out << YAML::Flow << YAML::BeginSeq;
  // Plain, so that they read as numbers whatever the emitter's string format.
  for (double value : values) out << YAML::Auto << exactDoubleText(value);
  out << YAML::EndSeq;
}

bool sameDouble(double left, double right) {
  // .nan reads back as a NaN, though not with the same sign or payload bits.
  if (std::isnan(left) || std::isnan(right)) return std::isnan(left) && std::isnan(right);
  // Bit for bit on purpose: 0.0 and -0.0 compare equal as values but must not here.
  // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison)
  return std::memcmp(&left, &right, sizeof left) == 0;
}

// Whether `root`, read back from the emitted text, holds exactly `value` under `key`.
bool readsBack(const YAML::Node& root, const std::string& key, const std::string& value) {
  const YAML::Node node = root[key];
  return node.IsDefined() && node.IsScalar() && node.Scalar() == value;
}

bool readsBack(const YAML::Node& root, const std::string& key, const std::vector<double>& values) {
  const YAML::Node node = root[key];
  if (!node.IsDefined() || !node.IsSequence() || node.size() != values.size()) return false;
  for (size_t index = 0; index < values.size(); ++index) {
    double number = 0.0;
    const YAML::Node element = node[index];
    if (!element.IsScalar() || !YAML::convert<double>::decode(element, number) ||
        !sameDouble(number, values[index])) {
      return false;
    }
  }
  return true;
}

// Nodes compared, and levels descended, before giving up: through aliases a small file can
// describe a huge tree, or one that contains itself.
constexpr size_t kMaxComparedNodes = 100000;
constexpr int kMaxComparedDepth = 512;

// The non-specific tags "?" (plain) and "!" (quoted) only record how a scalar was written, which
// the emitter chooses anew; only an explicit tag is part of the value.
std::string explicitTag(const YAML::Node& node) {
  const std::string& tag = node.Tag();
  return tag == "?" || tag == "!" ? std::string() : tag;
}

// Whether `written`, read back from emitted text, is `original`: same kinds, explicit tags,
// scalars and order. Each node compared spends one of `budget`; `depth` is the node's level.
bool sameNode(const YAML::Node& original, const YAML::Node& written, size_t& budget, int depth) {
  if (budget == 0 || depth > kMaxComparedDepth) return false;
  --budget;
  if (original.Type() != written.Type() || explicitTag(original) != explicitTag(written)) {
    return false;
  }
  if (original.IsScalar()) return original.Scalar() == written.Scalar();
  if (!original.IsSequence() && !original.IsMap()) return true;
  if (original.size() != written.size()) return false;
  for (auto left = original.begin(), right = written.begin(); left != original.end();
       ++left, ++right) {
    const bool same = original.IsMap()
                          ? sameNode(left->first, right->first, budget, depth + 1) &&
                                sameNode(left->second, right->second, budget, depth + 1)
                          : sameNode(*left, *right, budget, depth + 1);
    if (!same) return false;
  }
  return true;
}

// Whether every entry of `original` but the values under `key` comes back unchanged, in order,
// from `written`.
bool keepsOtherEntries(const YAML::Node& original, const YAML::Node& written,
                       const std::string& key) {
  size_t budget = kMaxComparedNodes;
  auto right = written.begin();
  for (auto left = original.begin(); left != original.end(); ++left, ++right) {
    if (right == written.end() || !sameNode(left->first, right->first, budget, 1)) return false;
    const bool replaced = left->first.IsScalar() && left->first.Scalar() == key;
    if (!replaced && !sameNode(left->second, right->second, budget, 1)) return false;
  }
  return true;
}

class TemporaryFile {
 public:
  TemporaryFile() = default;
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() {
    if (fd_ >= 0) close(fd_);
    if (!path_.empty()) unlink(path_.c_str());
  }

  // Creates a fresh file beside `target`; the umask applies as for any new file.
  int create(const fs::path& target) {
    std::random_device random;
    for (int attempt = 0; attempt < 100; ++attempt) {
      std::ostringstream name;
      name << '.' << target.filename().string() << ".tmp." << std::hex << random() << random();
      const fs::path candidate = target.parent_path() / name.str();
      fd_ = open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
      if (fd_ >= 0) {
        path_ = candidate.string();
        return 0;
      }
      if (errno != EEXIST) return errno;
    }
    return EEXIST;
  }

  int fd() const { return fd_; }
  const std::string& path() const { return path_; }

  int closeFile() {
    const int result = close(fd_);
    fd_ = -1;
    return result == 0 ? 0 : errno;
  }

  // After a successful rename the file is no longer ours to remove.
  void release() { path_.clear(); }

 private:
  int fd_ = -1;
  std::string path_;
};

int writeAll(int fd, const std::string& text) {
  const char* data = text.data();
  size_t left = text.size();
  while (left > 0) {
    const ssize_t written = write(fd, data, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    data += written;
    left -= static_cast<size_t>(written);
  }
  return 0;
}

void syncDirectory(const fs::path& directory) {
  const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;  // best effort: the rename itself already happened
  fsync(fd);
  close(fd);
}

// Replaces the file at `path` by `text` in one step: readers and crashes see
// either the old or the new complete file, never a mix.
void replaceFile(const std::string& path, const std::string& text) {
  fs::path target = fs::absolute(fs::path(path));
  const fs::path directory = target.parent_path();
  std::error_code error;
  fs::create_directories(directory, error);
  if (error) fail(path, "cannot create directory " + directory.string() + ": " + error.message());

  TemporaryFile temporary;
  if (const int code = temporary.create(target)) {
    fail(path, "cannot create a temporary file in " + directory.string() + ": " + errnoText(code));
  }
  struct stat old_status {};
  if (stat(target.c_str(), &old_status) == 0) {
    // Keep the mode the old file had, e.g. one opened up for other accounts.
    fchmod(temporary.fd(), old_status.st_mode & 07777);
  }
  int code = writeAll(temporary.fd(), text);
  if (code == 0 && fsync(temporary.fd()) != 0) code = errno;
  if (code == 0) code = temporary.closeFile();
  if (code != 0) fail(path, "cannot write: " + errnoText(code));
  if (rename(temporary.path().c_str(), target.c_str()) != 0) {
    fail(path, "cannot replace the file: " + errnoText(errno));
  }
  temporary.release();
  syncDirectory(directory);
}

// The document `root` with `value` under `key`, as YAML text. With `quote_strings` every string
// but the numbers of a list is written double-quoted instead of in the style the emitter picks.
template <typename Value>
std::string emitDocument(const std::string& path, const YAML::Node& root, const std::string& key,
                         const Value& value, bool quote_strings) {
  YAML::Emitter out;
  if (quote_strings) out.SetStringFormat(YAML::DoubleQuoted);
  out << YAML::BeginMap;
  bool written = false;
  for (const auto& entry : root) {
    const std::string name = entry.first.Scalar();
    out << YAML::Key << entry.first << YAML::Value;
    if (entry.first.IsScalar() && name == key) {
      emitValue(out, value);
      written = true;
    } else {
      out << entry.second;
    }
  }
  if (!written) {
    out << YAML::Key << key << YAML::Value;
    emitValue(out, value);
  }
  out << YAML::EndMap;
  if (!out.good()) fail(path, std::string("cannot encode the document: ") + out.GetLastError());
  std::string text = out.c_str();
  text += '\n';
  return text;
}

// Reads `text` back into `reloaded` and answers what in it differs from `root` with `value` under
// `key`, or "" when nothing does.
template <typename Value>
std::string writtenBackDifference(const std::string& text, const YAML::Node& root,
                                  const std::string& key, const Value& value,
                                  YAML::Node& reloaded) {
  try {
    reloaded = YAML::Load(text);
    // Raw bytes the emitter copies can even change how the text is decoded (0xFE 0xFF at its
    // start reads as a UTF-16 byte order mark).
    if (!reloaded.IsMap()) return "cannot encode the document: it does not read back as a mapping";
    if (!readsBack(reloaded, key, value)) {
      return "the value of \"" + key +
             "\" cannot be stored as it is: YAML text must be valid UTF-8 without noncharacters";
    }
    if (!keepsOtherEntries(root, reloaded, key)) {
      return "the file holds a value that cannot be written back unchanged, or aliases that make "
             "it too large or too deep to compare (text must be valid UTF-8 without "
             "noncharacters)";
    }
  } catch (const YAML::Exception& error) {
    return std::string("cannot encode the document: ") + error.what();
  }
  return std::string();
}

template <typename Value>
void store(const std::string& path, YAML::Node& root, const std::string& key, const Value& value) {
  // The emitter silently replaces what YAML text cannot hold (bytes that are not UTF-8,
  // noncharacters), so the text is read back before it replaces the file: neither the new value
  // nor any other may change on its way to disk.
  YAML::Node reloaded;
  std::string text = emitDocument(path, root, key, value, false);
  std::string difference = writtenBackDifference(text, root, key, value, reloaded);
  if (!difference.empty()) {
    // The style the emitter picks for a string can lose characters (a plain scalar ending in
    // a carriage return); double quotes escape them all.
    text = emitDocument(path, root, key, value, true);
    difference = writtenBackDifference(text, root, key, value, reloaded);
  }
  if (!difference.empty()) fail(path, difference + "; nothing was written");
  replaceFile(path, text);
  // Only now that the file holds it does the document change.
  root = reloaded;
}

}  // namespace

Param::Param(const std::string& path) : path_(path), document_(new Document{loadDocument(path)}) {}

Param::~Param() = default;

bool Param::get(const std::string& key, std::string& value) const {
  const YAML::Node node = lookup(document_->root, key);
  if (!node.IsDefined()) return false;
  if (!node.IsScalar()) fail(path_, "the value of \"" + key + "\" is not a string");
  value = node.Scalar();
  return true;
}

bool Param::get(const std::string& key, std::vector<double>& value) const {
  const YAML::Node node = lookup(document_->root, key);
  if (!node.IsDefined()) return false;
  if (!node.IsSequence()) fail(path_, "the value of \"" + key + "\" is not a list of numbers");
  std::vector<double> numbers;
  numbers.reserve(node.size());
  for (const YAML::Node& element : node) {
    double number = 0.0;
    if (!element.IsScalar() || !YAML::convert<double>::decode(element, number)) {
      fail(path_, "the value of \"" + key + "\" is not a list of numbers");
    }
    numbers.push_back(number);
  }
  value = std::move(numbers);
  return true;
}

void Param::set(const std::string& key, const std::string& value) {
  store(path_, document_->root, key, value);
}

void Param::set(const std::string& key, const std::vector<double>& value) {
  store(path_, document_->root, key, value);
}

}  // namespace dova
