#ifndef DOVA_MSGS_FIELD_LIST_H_
#define DOVA_MSGS_FIELD_LIST_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>
#include <type_traits>

#include "dova/json/elements.h"
#include "dova/msgs/bounded_cursor.h"
#include "dova/msgs/field_codecs.h"
#include "dova/msgs/json_parse.h"
#include "dova/msgs/msg.h"
#include "dova/time.h"

// A message's layout written once: its field list, the fields in wire order
// with their JSON names. The binary encoding, its size, the frame walk, the
// echo text and the JSON parser all follow from that list, so a field change
// touches one line. Stateless; safe on any thread.
namespace dova::msgs {

template <typename MemberPointer>
struct MemberOf;
template <typename Record, typename Value>
struct MemberOf<Value Record::*> {
  using Type = Value;
};

// One field: `Member` says where it lives (and so its C++ type and codec),
// `name` is its JSON member name. Each operation takes the record that holds
// the field.
template <auto Member>
struct Field {
  using Codec = FieldCodec<typename MemberOf<decltype(Member)>::Type>;

  const char* name;

  template <typename Record>
  size_t wireSize(const Record& record) const {
    return Codec::wireSize(record.*Member);
  }
  template <typename Record>
  uint8_t* write(uint8_t* out, const Record& record) const {
    return Codec::write(out, record.*Member);
  }
  template <typename Record>
  const uint8_t* read(const uint8_t* in, Record& record) const {
    return Codec::read(in, record.*Member);
  }
  template <typename Record>
  size_t echoSizeHint(const Record& record) const {
    return std::strlen(name) + 4 + Codec::echoSizeHint(record.*Member);
  }
  // `separator` is '{' before the first field and ',' after it.
  template <typename Record>
  void appendEcho(std::string& out, const Record& record, char& separator) const {
    out.push_back(separator);
    separator = ',';
    out.push_back('"');
    out.append(name);
    out.append("\":");
    Codec::appendEcho(out, record.*Member);
  }
  template <typename Record>
  void take(json::Object& object, Record& record) const {
    Codec::take(object, name, record.*Member);
  }
};

template <auto Member>
constexpr Field<Member> field(const char* name) {
  return Field<Member>{name};
}

// Each operation on a whole record runs its fields in list order.

template <typename Record, typename... Fields>
size_t fieldsWireSize(const Record& record, const std::tuple<Fields...>& fields) {
  return std::apply(
      [&record](const Fields&... field) { return (size_t{0} + ... + field.wireSize(record)); },
      fields);
}

template <typename Record, typename... Fields>
uint8_t* writeFields(uint8_t* out, const Record& record, const std::tuple<Fields...>& fields) {
  std::apply([&](const Fields&... field) { ((out = field.write(out, record)), ...); }, fields);
  return out;
}

template <typename Record, typename... Fields>
const uint8_t* readFields(const uint8_t* in, Record& record, const std::tuple<Fields...>& fields) {
  std::apply([&](const Fields&... field) { ((in = field.read(in, record)), ...); }, fields);
  return in;
}

// Stops at the first field that does not fit.
template <typename... Fields>
bool walkFields(BoundedCursor& cursor, const std::tuple<Fields...>& /*fields*/) {
  return (Fields::Codec::walk(cursor) && ...);
}

template <typename Record, typename... Fields>
size_t fieldsEchoSizeHint(const Record& record, const std::tuple<Fields...>& fields) {
  return std::apply(
      [&record](const Fields&... field) { return (size_t{2} + ... + field.echoSizeHint(record)); },
      fields);
}

// The record as a JSON object without white space, members in list order.
template <typename Record, typename... Fields>
void appendEchoFields(std::string& out, const Record& record, const std::tuple<Fields...>& fields) {
  static_assert(sizeof...(Fields) > 0, "a record has at least one field");
  char separator = '{';
  std::apply([&](const Fields&... field) { (field.appendEcho(out, record, separator), ...); },
             fields);
  out.push_back('}');
}

// Each field is assigned as soon as its member is read.
template <typename Record, typename... Fields>
void takeFields(json::Object& object, Record& record, const std::tuple<Fields...>& fields) {
  std::apply([&](const Fields&... field) { (field.take(object, record), ...); }, fields);
}

// A record whose fields are listed by Layout::fields(): everything but the
// JSON parsing, which differs between a nested object and an embedded message.
template <typename Record, typename Layout = Record>
struct RecordCodec {
  static size_t wireSize(const Record& record) { return fieldsWireSize(record, Layout::fields()); }
  static uint8_t* write(uint8_t* out, const Record& record) {
    return writeFields(out, record, Layout::fields());
  }
  static const uint8_t* read(const uint8_t* in, Record& record) {
    return readFields(in, record, Layout::fields());
  }
  static bool walk(BoundedCursor& cursor) { return walkFields(cursor, Layout::fields()); }
  static size_t echoSizeHint(const Record& record) {
    return fieldsEchoSizeHint(record, Layout::fields());
  }
  static void appendEcho(std::string& out, const Record& record) {
    appendEchoFields(out, record, Layout::fields());
  }
};

// time: sec, then nsec; in JSON an object {"sec":..,"nsec":..}.
struct TimeLayout {
  static constexpr auto fields() {
    return std::make_tuple(field<&Time::sec>("sec"), field<&Time::nsec>("nsec"));
  }
};

template <>
struct FieldCodec<Time> : RecordCodec<Time, TimeLayout> {
  static void take(json::Object& object, const char* name, Time& time) {
    takeFields(object[name].ConvertTo<json::Object>(), time, TimeLayout::fields());
  }
};

// An embedded message (the header): encoded in place, without a prefix.
template <typename MessageT>
struct FieldCodec<MessageT, std::enable_if_t<std::is_base_of_v<Msg, MessageT>>>
    : RecordCodec<MessageT> {
  // Deliberately a round trip through text: the member is written back as
  // JSON and read by the embedded message's own parser, which reports its own
  // failure (one line) and leaves the embedded message as it was.
  static void take(json::Object& object, const char* name, MessageT& message) {
    message.parse(&message, writeJsonText(object[name]));
  }
};

// The section that ends the definition text of a message embedding a
// MessageT: a line of 80 '=', "MSG: " and its type name, then its own
// definition text.
template <typename MessageT>
std::string embeddedDefinition() {
  const MessageT message;
  return std::string(80, '=') + "\nMSG: " + message.getType() + "\n" + message.getDefinition();
}

// Base of a message whose layout is its field list. Derived provides
//   static constexpr auto fields();  // std::make_tuple(field<&Derived::x>("x"), ...)
// and getType, getMD5 and getDefinition; this class derives every other
// operation of Msg from the list. Contracts as in Msg; a plain value like it.
template <typename Derived>
class FieldListMessage : public Msg {
 public:
  int serialize(uint8_t* buf, int /*size*/) const override {
    return static_cast<int>(Codec::write(buf, self()) - buf);
  }

  int deserialize(uint8_t* buf, int /*size*/) override {
    return static_cast<int>(Codec::read(buf, self()) - buf);
  }

  int serializedLength() const override { return static_cast<int>(Codec::wireSize(self())); }

  std::string echo() const override {
    std::string text;
    text.reserve(Codec::echoSizeHint(self()));
    Codec::appendEcho(text, self());
    return text;
  }

  // Fills the Derived that `target` points to, field by field in list order.
  // Unreadable text prints one line and changes nothing.
  void parse(Msg* target, const std::string& json) override {
    auto& message = *static_cast<Derived*>(target);  // the caller guarantees the type
    parseJsonObject(
        json, [&message](json::Object& object) { takeFields(object, message, Derived::fields()); });
  }

 protected:
  FieldListMessage() = default;
  FieldListMessage(const FieldListMessage&) = default;
  FieldListMessage(FieldListMessage&&) noexcept = default;
  FieldListMessage& operator=(const FieldListMessage&) = default;
  FieldListMessage& operator=(FieldListMessage&&) noexcept = default;
  ~FieldListMessage() = default;

 private:
  using Codec = RecordCodec<Derived>;

  const Derived& self() const { return static_cast<const Derived&>(*this); }
  Derived& self() { return static_cast<Derived&>(*this); }
};

}  // namespace dova::msgs

#endif  // DOVA_MSGS_FIELD_LIST_H_
