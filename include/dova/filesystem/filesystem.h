#ifndef DOVA_FILESYSTEM_FILESYSTEM_H_
#define DOVA_FILESYSTEM_FILESYSTEM_H_

#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

namespace dova::filesystem {

// A file system path. Runs of '/' collapse to one when the path is built, so
// "/opt//quor" and "/opt/quor" are the same path; everything else follows
// std::filesystem::path. Plain value; safe to share read-only across threads.
class path {
 public:
  path() = default;
  path(const std::string& text)
      : native_(collapseSeparators(text)) {}  // NOLINT: implicit by design
  path(const char* text) : path(std::string(text == nullptr ? "" : text)) {}  // NOLINT

  const std::string& string() const { return native_; }
  const char* c_str() const { return native_.c_str(); }
  bool empty() const { return native_.empty(); }

  // The last component: "c" of "a/b/c", "" of "a/b/" and of "".
  path filename() const { return path(standard().filename().string()); }
  path parent_path() const { return path(standard().parent_path().string()); }

  std::filesystem::path standard() const { return std::filesystem::path(native_); }

  bool operator==(const path& other) const { return native_ == other.native_; }
  bool operator!=(const path& other) const { return native_ != other.native_; }

 private:
  static std::string collapseSeparators(const std::string& text) {
    std::string collapsed;
    collapsed.reserve(text.size());
    for (const char c : text) {
      if (c == '/' && !collapsed.empty() && collapsed.back() == '/') continue;
      collapsed += c;
    }
    return collapsed;
  }

  std::string native_;
};

// The operating system's text for an error number, as strerror gives it.
inline std::string errorText(int error_number) {
  char buffer[256];
  // GNU strerror_r may return a static string instead of filling the buffer.
  return std::string(strerror_r(error_number, buffer, sizeof buffer));
}

// A failed file system operation. what() is the message, then ": '", the path
// and "'" when a path is given.
class filesystem_error : public std::system_error {
 public:
  filesystem_error(const std::string& message, const path& where, std::error_code code)
      : std::system_error(code, message), path1_(where), what_(describe(message, where)) {}
  filesystem_error(const std::string& message, std::error_code code)
      : filesystem_error(message, path(), code) {}

  const char* what() const noexcept override { return what_.c_str(); }
  const path& path1() const noexcept { return path1_; }

 private:
  static std::string describe(const std::string& message, const path& where) {
    return where.empty() ? message : message + ": '" + where.string() + "'";
  }

  path path1_;
  std::string what_;
};

// Creates `directory` and every missing parent, each with mode 0777 before the
// umask. True when something was created; on failure `error` is set and the
// result is false. An existing directory is not an error.
inline bool create_directories(const path& directory, std::error_code& error) {
  error.clear();
  return std::filesystem::create_directories(directory.standard(), error);
}

// As above, but a failure throws filesystem_error.
inline bool create_directories(const path& directory) {
  std::error_code error;
  const bool created = create_directories(directory, error);
  if (error) throw filesystem_error(errorText(error.value()), directory, error);
  return created;
}

}  // namespace dova::filesystem

#endif  // DOVA_FILESYSTEM_FILESYSTEM_H_
