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
  for (double value : values) out << exactDoubleText(value);
  out << YAML::EndSeq;
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

template <typename Value>
void store(const std::string& path, YAML::Node& root, const std::string& key, const Value& value) {
  YAML::Emitter out;
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
  replaceFile(path, text);
  // Only now that the file holds it does the document change.
  root = YAML::Load(text);
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
