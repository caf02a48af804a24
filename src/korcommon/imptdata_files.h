#ifndef KORCOMMON_IMPTDATA_FILES_H_
#define KORCOMMON_IMPTDATA_FILES_H_

#include "dova/param.h"

// Where the robot's important data lives. The signal envelope reads the serial number from the
// same file through which the important-data store writes it.
namespace korcommon::detail {

inline constexpr char kJointOffsetFile[] = "/opt/quor/imptdata/joint_offset.yaml";
inline constexpr char kJointLimitFile[] = "/opt/quor/imptdata/joint_limit.yaml";
inline constexpr char kSerialNumberFile[] = "/opt/quor/imptdata/sn.yaml";

// The value stored under `key` in the parameter file `file`, or a default Value when the file
// holds none. Throws what dova::Param throws, for a malformed file or a wrong-shaped value,
// without handing out any part of the value.
template <typename Value>
Value readStoredValue(const char* file, const char* key) {
  const dova::Param param(file);
  Value value;
  if (!param.get(key, value)) return Value();
  return value;
}

}  // namespace korcommon::detail

#endif  // KORCOMMON_IMPTDATA_FILES_H_
