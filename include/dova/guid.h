#ifndef DOVA_GUID_H_
#define DOVA_GUID_H_

#include <cstdint>
#include <string>

namespace dova::guid {

// A random RFC 4122 version 4 UUID as 36 lowercase characters. Thread-safe.
std::string uuid();

// A random non-zero id that this process has not handed out before. Thread-safe.
uint32_t uint32();

}  // namespace dova::guid

#endif  // DOVA_GUID_H_
