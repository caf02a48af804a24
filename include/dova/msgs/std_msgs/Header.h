#ifndef DOVA_MSGS_STD_MSGS_HEADER_H_
#define DOVA_MSGS_STD_MSGS_HEADER_H_

#include <string>
#include <tuple>

#include "dova/msgs/field_list.h"
#include "dova/time.h"

namespace dova::std_msgs {

// The standard header that other messages embed as their first field: a
// sequence number, the time of the data and the frame it refers to.
//
// fields() is its layout: the encoding, the frame walk, the echo text and the
// JSON members follow that list (docs/wire-format.md gives the offsets).
// parse() does not normalise nsec into sec.
//
// A plain value: concurrent const calls are safe, changes need exclusive access.
class Header final : public msgs::FieldListMessage<Header> {
 public:
  static constexpr auto fields() {
    return std::make_tuple(msgs::field<&Header::seq>("seq"), msgs::field<&Header::stamp>("stamp"),
                           msgs::field<&Header::frame_id>("frame_id"));
  }

  std::string getType() const override { return "std_msgs/Header"; }
  std::string getMD5() const override { return "2176decaecbce78abc3b96ef049fabed"; }
  std::string getDefinition() const override {
    return "uint32 seq\n"
           "time stamp\n"
           "string frame_id\n";
  }

  uint32_t seq = 0;
  dova::Time stamp;
  std::string frame_id;
};

}  // namespace dova::std_msgs

#endif  // DOVA_MSGS_STD_MSGS_HEADER_H_
