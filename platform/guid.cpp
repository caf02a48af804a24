#include "dova/guid.h"

#include <uuid/uuid.h>

#include <cstring>
#include <mutex>
#include <unordered_set>

namespace dova::guid {

std::string uuid() {
  uuid_t id;
  uuid_generate_random(id);
  char text[37];
  uuid_unparse_lower(id, text);
  return std::string(text, 36);
}

uint32_t uint32() {
  // Ids name subscriptions for the life of the process, so one must never
  // come back; the set costs four bytes per id handed out.
  static std::mutex issued_mutex;
  static std::unordered_set<uint32_t> issued;

  for (;;) {
    uuid_t id;
    uuid_generate_random(id);
    uint32_t candidate = 0;
    std::memcpy(&candidate, id, sizeof candidate);
    if (candidate == 0) continue;
    std::lock_guard<std::mutex> lock(issued_mutex);
    if (issued.insert(candidate).second) return candidate;
  }
}

}  // namespace dova::guid
