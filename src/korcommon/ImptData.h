#ifndef KORCOMMON_IMPTDATA_H_
#define KORCOMMON_IMPTDATA_H_

#include <string>
#include <vector>

namespace korcommon {

// The values that identify and calibrate this particular robot and must
// survive a reinstallation: joint zero offsets, joint limits, the serial
// number and the robot-description directory, each in its own parameter file
// under "/opt/quor/imptdata".
//
// After every successful write the whole directory is opened up to all users
// ("chmod -R 777"), so processes under other accounts can read and rewrite it.
// Failures are traced at ERROR through dova::mtrace and answered with false or
// an empty value; only getUrdfDir throws. No lock is taken: concurrent writers
// are ordered by the file system, and each write replaces its file atomically.
class ImptData {
 public:
  ImptData() = delete;

  static bool setJointOffset(const std::vector<double>& offsets);
  static bool setJointLimit(const std::vector<double>& limits);
  static bool setSN(const std::string& sn);

  // The stored value, or an empty one when none is stored or it cannot be read.
  static std::vector<double> getJointOffset();
  static std::vector<double> getJointLimit();
  static std::string getSN();

  // "/opt/quor/imptdata/urdf/", created with its parents when missing.
  // Throws dova::filesystem::filesystem_error when it cannot be created.
  static std::string getUrdfDir();
};

}  // namespace korcommon

#endif  // KORCOMMON_IMPTDATA_H_
