#ifndef DOVA_MSGS_FIELD_CODECS_H_
#define DOVA_MSGS_FIELD_CODECS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "dova/json/elements.h"
#include "dova/msgs/bounded_cursor.h"
#include "dova/msgs/json_parse.h"
#include "dova/msgs/json_text.h"
#include "dova/msgs/number_cast.h"
#include "dova/msgs/wire.h"

// How one field is carried, by its C++ type. A message type's definition type
// maps one to one onto the C++ type of its field (uint32 to uint32_t, int32 to
// int32_t, byte to int8_t, uint64 to uint64_t, string to std::string,
// string[] to std::vector<std::string>), so the C++ type alone selects the
// binary form, the frame walk step, the echo text and the JSON conversion.
// Stateless; safe on any thread.
namespace dova::msgs {

// FieldCodec<T> has, for a field `value` of type T:
//   size_t wireSize(value)                  bytes of its encoding
//   uint8_t* write(out, value)              encodes it, returns the end
//   const uint8_t* read(in, value)          decodes it, returns the end
//   bool walk(cursor)                       steps over an untrusted encoding
//   size_t echoSizeHint(value)              about the length of its echo text
//   void appendEcho(out, value)             its JSON text
//   void take(object, name, value)          sets it from the member `name`
// take() fetches the member through the writable access, so a missing or
// mistyped member never throws: it reads as the default of its kind.
// Specialised here for integers, strings and string lists, and in
// dova/msgs/field_list.h for times and embedded messages.
template <typename T, typename Enable = void>
struct FieldCodec;

// Fixed-size integers. A JSON number becomes one through `fromJson`, which
// defines every result (see dova/msgs/number_cast.h).
template <typename Integer, Integer (*fromJson)(double)>
struct IntegerCodec {
  static constexpr size_t wireSize(Integer /*value*/) { return sizeof(Integer); }
  static uint8_t* write(uint8_t* out, Integer value) { return writeInteger(out, value); }
  static const uint8_t* read(const uint8_t* in, Integer& value) { return readInteger(in, value); }
  static bool walk(BoundedCursor& cursor) { return cursor.skip(sizeof(Integer)); }

  static constexpr size_t echoSizeHint(Integer /*value*/) { return 20; }
  static void appendEcho(std::string& out, Integer value) {
    if constexpr (std::is_signed_v<Integer>) {
      appendSigned(out, value);
    } else {
      appendUnsigned(out, value);
    }
  }
  static void take(json::Object& object, const char* name, Integer& value) {
    value = fromJson(numberMember(object, name));
  }
};

// uint32: the low 32 bits of the 64-bit truncation (4294967297 gives 1).
template <>
struct FieldCodec<uint32_t> : IntegerCodec<uint32_t, truncateToLow32> {};
// int32: the 32-bit truncation (out of range: -2^31).
template <>
struct FieldCodec<int32_t> : IntegerCodec<int32_t, truncateToInt32> {};
// byte: the low 8 bits of the 32-bit truncation (300 gives 44); echoed signed.
template <>
struct FieldCodec<int8_t> : IntegerCodec<int8_t, truncateToLow8> {};
// uint64: 2^63 and above through the top bit.
template <>
struct FieldCodec<uint64_t> : IntegerCodec<uint64_t, truncateToUint64> {};

template <>
struct FieldCodec<std::string> {
  static size_t wireSize(const std::string& value) { return stringWireSize(value); }
  static uint8_t* write(uint8_t* out, const std::string& value) { return writeString(out, value); }
  static const uint8_t* read(const uint8_t* in, std::string& value) {
    return readString(in, value);
  }
  static bool walk(BoundedCursor& cursor) { return cursor.skipString(); }

  static size_t echoSizeHint(const std::string& value) { return value.size() + 2; }
  static void appendEcho(std::string& out, const std::string& value) {
    appendJsonString(out, value);
  }
  static void take(json::Object& object, const char* name, std::string& value) {
    value = stringMember(object, name);
  }
};

// string[]: a 32-bit count, then each string; in JSON an array of strings.
template <>
struct FieldCodec<std::vector<std::string>> {
  using Strings = std::vector<std::string>;

  static size_t wireSize(const Strings& values) {
    size_t size = sizeof(uint32_t);
    for (const std::string& value : values) {
      size += stringWireSize(value);
    }
    return size;
  }
  static uint8_t* write(uint8_t* out, const Strings& values) {
    out = writeInteger(out, static_cast<uint32_t>(values.size()));
    for (const std::string& value : values) {
      out = writeString(out, value);
    }
    return out;
  }
  static const uint8_t* read(const uint8_t* in, Strings& values) {
    uint32_t count = 0;
    in = readInteger(in, count);
    // Resize, then assign in place: surviving entries keep their capacity.
    values.resize(count);
    for (std::string& value : values) {
      in = readString(in, value);
    }
    return in;
  }
  static bool walk(BoundedCursor& cursor) {
    uint32_t count = 0;
    if (!cursor.readUint32(count)) {
      return false;
    }
    // Each string takes at least its 4-byte count, so a larger count cannot
    // fit: reject it before walking any string.
    if (count > cursor.remaining() / sizeof(uint32_t)) {
      return false;
    }
    for (uint32_t i = 0; i < count; ++i) {
      if (!cursor.skipString()) {
        return false;
      }
    }
    return true;
  }

  static size_t echoSizeHint(const Strings& values) {
    size_t size = 2;
    for (const std::string& value : values) {
      size += value.size() + 3;
    }
    return size;
  }
  static void appendEcho(std::string& out, const Strings& values) {
    out.push_back('[');
    for (size_t i = 0; i < values.size(); ++i) {
      if (i != 0) {
        out.push_back(',');
      }
      appendJsonString(out, values[i]);
    }
    out.push_back(']');
  }
  // The list takes the array's length, then element i as a string at i.
  static void take(json::Object& object, const char* name, Strings& values) {
    auto& array = object[name].ConvertTo<json::Array>();
    values.resize(array.size());
    for (size_t i = 0; i < array.size(); ++i) {
      values[i] = array[i].ConvertTo<json::String>();
    }
  }
};

}  // namespace dova::msgs

#endif  // DOVA_MSGS_FIELD_CODECS_H_
