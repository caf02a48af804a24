#include <cstring>
#include <string>

#include "dova/init.h"
#include "dova/msgs/frame_check.h"

namespace dova {

// The signature is the middleware's published one, non-const pointer included.
std::string getCallerId(uint8_t* data, int len) {  // NOLINT(readability-non-const-parameter)
  if (data == nullptr || len < static_cast<int>(msgs::kFramePrefixSize)) return std::string();
  const char* prefix = reinterpret_cast<const char*>(data);
  return std::string(prefix, strnlen(prefix, msgs::kFramePrefixSize));
}

}  // namespace dova
