// The JSON reader's check for repeated member names.
#ifndef DOVA_JSON_DETAIL_MEMBER_INDEX_H_
#define DOVA_JSON_DETAIL_MEMBER_INDEX_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>

#include "dova/json/elements.h"

namespace dova::json::detail {

// Answers whether a name is already a member of an object being read. A 64-bit filter of the
// names seen answers most questions at once; the members are searched only when it cannot.
// Small objects are searched in place; from kIndexedSize members on, a hash index keeps a text
// with very many members from making reading quadratic. Not thread-safe: one reading uses it.
class MemberIndex {
 public:
  explicit MemberIndex(const Object& object) : object_(object) {
    for (const Object::Member& member : object_) seen_ |= filterBit(member.name);
  }

  bool contains(std::string_view name) {
    if ((seen_ & filterBit(name)) == 0) return false;
    if (names_.empty()) {
      if (object_.size() < kIndexedSize) {
        return std::any_of(object_.begin(), object_.end(),
                           [name](const Object::Member& member) { return member.name == name; });
      }
      for (const Object::Member& member : object_) names_.insert(member.name);
    }
    return names_.count(name) != 0;
  }

  // REQUIRES: `name` lives in the object (the view must outlive the index).
  void add(const std::string& name) {
    seen_ |= filterBit(name);
    if (!names_.empty()) names_.insert(name);
  }

 private:
  static constexpr size_t kIndexedSize = 32;

  // One of 64 bits, chosen by the name's length and two of its characters.
  static uint64_t filterBit(std::string_view name) {
    if (name.empty()) return 1;
    const auto first = static_cast<unsigned char>(name[0]);
    const auto middle = static_cast<unsigned char>(name[name.size() / 2]);
    return uint64_t{1} << ((first * 7u + middle * 3u + name.size()) % 64);
  }

  const Object& object_;
  uint64_t seen_ = 0;
  std::unordered_set<std::string_view> names_;
};

}  // namespace dova::json::detail

#endif  // DOVA_JSON_DETAIL_MEMBER_INDEX_H_
