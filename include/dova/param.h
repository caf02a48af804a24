#ifndef DOVA_PARAM_H_
#define DOVA_PARAM_H_

#include <memory>
#include <string>
#include <vector>

namespace dova {

// A parameter file: a YAML mapping of keys to strings or lists of doubles.
//
// The file is read once, when the Param is built. Every set() rewrites the
// whole file atomically (a temporary file in the same directory, flushed and
// renamed over the old one), so readers and crashes only ever see the old or
// the new complete file. Keys other than the one set are kept. Doubles are
// written so that they read back bit for bit.
//
// One Param must not be used by two threads at once; separate Params on the
// same file may.
class Param {
 public:
  // Reads `path` when it exists; a missing file is an empty document.
  // Throws std::runtime_error naming the path when the file cannot be read
  // or is not a YAML mapping.
  explicit Param(const std::string& path);
  ~Param();

  Param(const Param&) = delete;
  Param& operator=(const Param&) = delete;

  // False when `key` is absent (value untouched). Throws std::runtime_error
  // when the value is not a scalar (string) or a list of numbers (vector).
  bool get(const std::string& key, std::string& value) const;
  bool get(const std::string& key, std::vector<double>& value) const;

  // Stores `value` under `key` and writes the file, creating missing parent
  // directories. Throws std::runtime_error naming the file and the reason when
  // it cannot be written, or when the written text would not read back as this
  // value and every other value unchanged (text that is not valid UTF-8 or
  // holds noncharacters); the file on disk and this Param are then unchanged.
  void set(const std::string& key, const std::string& value);
  void set(const std::string& key, const std::vector<double>& value);

  const std::string& path() const { return path_; }

 private:
  struct Document;

  std::string path_;
  std::unique_ptr<Document> document_;
};

}  // namespace dova

#endif  // DOVA_PARAM_H_
