#include "korcommon/ImptData.h"

#include <sys/stat.h>

#include <cstdlib>
#include <exception>
#include <system_error>

#include "dova/filesystem/filesystem.h"
#include "dova/param.h"
#include "dova/trace.h"
#include "korcommon/imptdata_files.h"
#include "korcommon/trace_text.h"

namespace korcommon {
namespace {

using detail::kJointLimitFile;
using detail::kJointOffsetFile;
using detail::kSerialNumberFile;

constexpr char kUrdfDirectory[] = "/opt/quor/imptdata/urdf/";

constexpr char kOpenDataDirectory[] = "chmod -R 777 /opt/quor/imptdata";
constexpr char kOpenUrdfDirectory[] = "chmod -R 777 /opt/quor/imptdata/urdf";

// Whether `path` itself, not what it points to, is a symbolic link.
bool isSymbolicLink(const char* path) {
  struct stat status {};
  return lstat(path, &status) == 0 && S_ISLNK(status.st_mode);
}

// The shell's result is deliberately ignored: a failed mode change does not
// undo a value that is already stored.
void runModeChange(const char* command) { (void)std::system(command); }

template <typename Value>
bool store(const char* function, const char* file, const char* key, const Value& value,
           const char* empty_message) {
  if (value.empty()) {
    dova::mtrace(dova::ERROR, __FILE__, __LINE__, function, false, "%s", empty_message);
    return false;
  }
  try {
    dova::Param param(file);
    param.set(key, value);
    runModeChange(kOpenDataDirectory);  // while the file is still open, as callers expect
    return true;
  } catch (const std::exception& error) {
    detail::traceLiteral(dova::ERROR, __FILE__, __LINE__, function, error.what());
    return false;
  }
}

template <typename Value>
Value load(const char* function, const char* file, const char* key) {
  try {
    return detail::readStoredValue<Value>(file, key);
  } catch (const std::exception& error) {
    detail::traceLiteral(dova::ERROR, __FILE__, __LINE__, function, error.what());
    return Value();
  }
}

}  // namespace

bool ImptData::setJointOffset(const std::vector<double>& offsets) {
  return store("setJointOffset", kJointOffsetFile, "joint_offset", offsets,
               "joint_offset data is empty");
}

bool ImptData::setJointLimit(const std::vector<double>& limits) {
  return store("setJointLimit", kJointLimitFile, "joint_limit", limits,
               "joint_limit data is empty");
}

bool ImptData::setSN(const std::string& sn) {
  return store("setSN", kSerialNumberFile, "sn", sn, "sn data is empty");
}

std::vector<double> ImptData::getJointOffset() {
  return load<std::vector<double>>("getJointOffset", kJointOffsetFile, "joint_offset");
}

std::vector<double> ImptData::getJointLimit() {
  return load<std::vector<double>>("getJointLimit", kJointLimitFile, "joint_limit");
}

std::string ImptData::getSN() { return load<std::string>("getSN", kSerialNumberFile, "sn"); }

std::string ImptData::getUrdfDir() {
  const dova::filesystem::path directory(kUrdfDirectory);
  std::error_code error;
  dova::filesystem::create_directories(directory, error);
  // Deliberately not caught here, unlike the other operations: a caller that
  // needs the directory cannot go on without it.
  if (error) {
    throw dova::filesystem::filesystem_error(dova::filesystem::errorText(error.value()), directory,
                                             error);
  }
  // "chmod -R" follows a link named on its command line and opens the whole tree it points
  // to; whoever can replace the directory must not choose that tree.
  const dova::filesystem::path entry = directory.parent_path();  // without the trailing "/"
  if (isSymbolicLink(entry.c_str())) {
    dova::mtrace(dova::ERROR, __FILE__, __LINE__, "getUrdfDir", false,
                 "%s is a symbolic link: its mode is left unchanged", entry.c_str());
    return kUrdfDirectory;
  }
  runModeChange(kOpenUrdfDirectory);
  return kUrdfDirectory;
}

}  // namespace korcommon
