#ifndef DOVA_PLATFORM_DDS_FRAME_SAMPLE_H_
#define DOVA_PLATFORM_DDS_FRAME_SAMPLE_H_

#include <dds/dds.h>
#include <dds/ddsi/ddsi_serdata.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "dova/msgs/bounded_cursor.h"

namespace dova::platform {

// Frames cross Cyclone DDS as samples this code serializes and reads itself,
// never converted to or from a C struct on the way: the fields of the
// dova::wire::Frame type (frame.idl) in CDR, after a 4-byte encoding header.
// Writers build a sample from the bytes they hold; readers keep what arrived
// as it came. The key of a sample, the publisher and key strings, is the
// first stretch of its body, and serves as is for Cyclone's instances.
//
// The sample type carries serialized samples only: Cyclone's calls that pass
// C structs (dds_write, dds_take) are refused on its topics.

// A new sample type for dds_create_topic_sertype, named as the IDL names the
// type, so that processes writing that type's samples are understood. Once
// a topic is created with it Cyclone owns it; otherwise the caller frees it
// with ddsi_sertype_unref.
ddsi_sertype* createFrameSampleType();

// Releases the reference a FrameSampleRef holds.
struct UnrefFrameSample {
  void operator()(ddsi_serdata* sample) const { ddsi_serdata_unref(sample); }
};
using FrameSampleRef = std::unique_ptr<ddsi_serdata, UnrefFrameSample>;

// A sample of `type` carrying one frame written by `publisher`, in this
// machine's byte order; null when the frame is too large for a sample.
// REQUIRES: `type` came from createFrameSampleType().
FrameSampleRef makeFrameSample(const ddsi_sertype* type, std::string_view publisher,
                               std::string_view key, std::string_view md5, const uint8_t* frame,
                               size_t size);

// Reads the fields of a frame sample from its serialized form (the encoding
// header, then the fields in declaration order). Every read is bounded by
// the bytes given; a failed read fails every later one. Not thread-safe.
class SampleCursor {
 public:
  SampleCursor(const uint8_t* bytes, size_t size);

  // A string: a count that includes the terminating NUL, then the characters.
  bool text(std::string_view& value);

  // A sequence of bytes: a count aligned to 4 bytes from the body's start
  // (the header is 4 bytes long), then the bytes.
  bool octets(const uint8_t*& data, size_t& length);

  // How many bytes, the header included, the reads have consumed.
  size_t consumed() const { return cursor_.consumed(); }

 private:
  bool fail();

  const uint8_t* bytes_;
  msgs::BoundedCursor cursor_;
  bool ok_ = false;
  bool swap_ = false;
};

}  // namespace dova::platform

#endif  // DOVA_PLATFORM_DDS_FRAME_SAMPLE_H_
