#ifndef DOVA_MSGS_MSG_H_
#define DOVA_MSGS_MSG_H_

#include <cstdint>
#include <string>

#include "dova/msgs/json_text.h"

namespace dova {

namespace std_msgs {
class Header;
}

// Base of every message the middleware carries: the binary codec, the type
// name, checksum and definition text that publishers and subscribers agree
// on, and the one-line JSON rendering and parsing.
//
// Binary encoding of every message: fields packed in declaration order with
// no padding or tags; 32-bit integers in little-endian byte order at any
// alignment; a time as seconds then nanoseconds; a string as a 32-bit byte
// count and the bytes; an embedded message in place, without a prefix.
//
// Thread safety: a message is a plain value. Concurrent const calls are safe;
// any call that changes it needs exclusive access.
class Msg {
 public:
  // Writes the whole encoding at `buf` and returns its size, serializedLength().
  // `size` is deliberately not checked: bounds are the transport's job.
  // REQUIRES: buf holds at least serializedLength() bytes.
  virtual int serialize(uint8_t* buf, int size) const = 0;

  // Replaces every field with the encoding at `buf` and returns the bytes
  // consumed. Deliberately unchecked, like serialize: a length prefix larger
  // than the data reads past the buffer.
  // REQUIRES: buf holds one complete encoding (see dova/msgs/frame_check.h).
  virtual int deserialize(uint8_t* buf, int size) = 0;

  // The exact number of bytes serialize() writes.
  virtual int serializedLength() const = 0;

  virtual std::string getType() const = 0;
  // 32 lowercase hex digits identifying the definition text.
  virtual std::string getMD5() const = 0;
  virtual std::string getDefinition() const = 0;

  // The message as one line of JSON text without white space.
  virtual std::string echo() const = 0;

  // The embedded standard header, or null for a message without one.
  virtual const std_msgs::Header* getHeader() const { return nullptr; }

  // Fills `target`, which must be of the concrete type whose parse runs (it is
  // not checked), from JSON text. Never throws a standard exception: a failure
  // is printed on standard output and the target keeps the fields not yet read.
  virtual void parse(Msg* /*target*/, const std::string& /*json*/) {}

  // `text` as a JSON string literal, quotes included (see appendJsonString).
  static std::string matchString2(const std::string& text) {
    std::string quoted;
    quoted.reserve(text.size() + 2);
    msgs::appendJsonString(quoted, text);
    return quoted;
  }

  // The sender's node name, set by the receiving subscriber from the frame's
  // transport prefix. Not part of the binary or JSON forms.
  std::string caller_id;

 protected:
  Msg() = default;
  Msg(const Msg&) = default;
  Msg(Msg&&) = default;
  Msg& operator=(const Msg&) = default;
  Msg& operator=(Msg&&) = default;
  // Deliberately not virtual: messages are always destroyed through their
  // concrete type. Protected, so deleting through a Msg* does not compile;
  // the concrete messages are final, so nothing derives from them either.
  ~Msg() = default;
};

}  // namespace dova

#endif  // DOVA_MSGS_MSG_H_
