#include "dds_frame_sample.h"

#include <dds/ddsi/q_radmin.h>
#include <dds/ddsrt/md5.h>
#include <dds/ddsrt/mh3.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>

#include "frame.h"

namespace dova::platform {
namespace {

constexpr size_t kHeaderSize = 4;
// Cyclone counts sample sizes in 32 bits; half of that is far beyond any frame.
constexpr size_t kMaxSampleSize = 0x7FFFFFFF;

size_t alignedTo4(size_t offset) { return (offset + 3) & ~size_t{3}; }

// A sample: Cyclone's part first (Cyclone converts between the two
// pointers), then the serialized bytes, header included, zero-padded to a
// multiple of 4. Immutable once built; Cyclone counts its references.
struct FrameSample {
  ddsi_serdata base;
  uint32_t size;     // serialized bytes, header included
  uint32_t key_end;  // the key fields are the bytes from kHeaderSize up to here

  uint8_t* bytes() { return reinterpret_cast<uint8_t*>(this + 1); }
  const uint8_t* bytes() const { return reinterpret_cast<const uint8_t*>(this + 1); }
  std::string_view key() const {
    return {reinterpret_cast<const char*>(bytes()) + kHeaderSize, key_end - kHeaderSize};
  }
};
static_assert(std::is_standard_layout_v<FrameSample>);
static_assert(sizeof(FrameSample) % 8 == 0, "the bytes that follow stay aligned");

const FrameSample& frameSample(const ddsi_serdata* sample) {
  return *reinterpret_cast<const FrameSample*>(sample);
}

// Null when out of memory or too large. REQUIRES: size >= kHeaderSize.
FrameSample* allocate(const ddsi_sertype* type, ddsi_serdata_kind kind, size_t size) {
  if (size > kMaxSampleSize) return nullptr;
  const size_t padded = alignedTo4(size);
  auto* sample = static_cast<FrameSample*>(std::malloc(sizeof(FrameSample) + padded));
  if (sample == nullptr) return nullptr;
  ddsi_serdata_init(&sample->base, type, kind);
  sample->size = static_cast<uint32_t>(size);
  sample->key_end = kHeaderSize;
  std::memset(sample->bytes() + size, 0, padded - size);
  return sample;
}

// Checks the bytes of a sample that arrived and finds its key; frees the
// sample and returns null when they are no sample of this type.
ddsi_serdata* accept(FrameSample* sample) {
  const uint8_t* bytes = sample->bytes();
  // Plain CDR or plain XCDR2, either byte order: the layouts agree for this type.
  const bool known_encoding = bytes[0] == 0 && (bytes[1] & ~0x11) == 0;
  SampleCursor cursor(bytes, sample->size);
  std::string_view publisher;
  std::string_view key;
  if (!known_encoding || !cursor.text(publisher) || !cursor.text(key)) {
    std::free(sample);
    return nullptr;
  }
  sample->key_end = static_cast<uint32_t>(cursor.consumed());
  const std::string_view key_fields = sample->key();
  sample->base.hash =
      ddsrt_mh3(key_fields.data(), key_fields.size(), sample->base.type->serdata_basehash);
  return &sample->base;
}

bool equalKeys(const ddsi_serdata* a, const ddsi_serdata* b) {
  return frameSample(a).key() == frameSample(b).key();
}

uint32_t serializedSize(const ddsi_serdata* sample) { return frameSample(sample).size; }

// What arrived in fragments: they start at the header and may overlap.
ddsi_serdata* fromFragments(const ddsi_sertype* type, ddsi_serdata_kind kind,
                            const nn_rdata* fragments, size_t size) {
  if (size < kHeaderSize) return nullptr;
  FrameSample* sample = allocate(type, kind, size);
  if (sample == nullptr) return nullptr;
  uint32_t filled = 0;
  for (const nn_rdata* fragment = fragments; fragment != nullptr; fragment = fragment->nextfrag) {
    if (fragment->min > filled || fragment->maxp1 > size) {
      std::free(sample);
      return nullptr;
    }
    if (fragment->maxp1 <= filled) continue;
    const unsigned char* payload =
        NN_RMSG_PAYLOADOFF(fragment->rmsg, NN_RDATA_PAYLOAD_OFF(fragment));
    std::memcpy(sample->bytes() + filled, payload + (filled - fragment->min),
                fragment->maxp1 - filled);
    filled = fragment->maxp1;
  }
  if (filled != size) {
    std::free(sample);
    return nullptr;
  }
  return accept(sample);
}

ddsi_serdata* fromPieces(const ddsi_sertype* type, ddsi_serdata_kind kind, ddsrt_msg_iovlen_t count,
                         const ddsrt_iovec_t* pieces, size_t size) {
  if (size < kHeaderSize) return nullptr;
  FrameSample* sample = allocate(type, kind, size);
  if (sample == nullptr) return nullptr;
  size_t filled = 0;
  for (ddsrt_msg_iovlen_t i = 0; i < count; ++i) {
    if (pieces[i].iov_len > size - filled) {
      std::free(sample);
      return nullptr;
    }
    std::memcpy(sample->bytes() + filled, pieces[i].iov_base, pieces[i].iov_len);
    filled += pieces[i].iov_len;
  }
  if (filled != size) {
    std::free(sample);
    return nullptr;
  }
  return accept(sample);
}

// The keys are strings, so a key hash is a digest that cannot be turned back into the key.
ddsi_serdata* fromKeyHash(const ddsi_sertype*, const ddsi_keyhash*) { return nullptr; }

ddsi_serdata* fromStruct(const ddsi_sertype*, ddsi_serdata_kind, const void*) { return nullptr; }

void copySerialized(const ddsi_serdata* sample, size_t offset, size_t size, void* buffer) {
  std::memcpy(buffer, frameSample(sample).bytes() + offset, size);
}

ddsi_serdata* referenceSerialized(const ddsi_serdata* sample, size_t offset, size_t size,
                                  ddsrt_iovec_t* reference) {
  reference->iov_base = const_cast<uint8_t*>(frameSample(sample).bytes() + offset);
  reference->iov_len = static_cast<ddsrt_iov_len_t>(size);
  return ddsi_serdata_ref(sample);
}

void releaseSerialized(ddsi_serdata* sample, const ddsrt_iovec_t*) { ddsi_serdata_unref(sample); }

bool toStruct(const ddsi_serdata*, void*, void**, void*) { return false; }

bool untypedToStruct(const ddsi_sertype*, const ddsi_serdata*, void*, void**, void*) {
  return false;
}

// The key alone (header and key fields), without a type: what Cyclone keeps
// per instance.
ddsi_serdata* toUntyped(const ddsi_serdata* from) {
  const FrameSample& sample = frameSample(from);
  FrameSample* key = allocate(sample.base.type, SDK_KEY, sample.key_end);
  if (key == nullptr) return nullptr;
  std::memcpy(key->bytes(), sample.bytes(), sample.key_end);
  key->key_end = sample.key_end;
  key->base.hash = sample.base.hash;
  key->base.type = nullptr;
  return &key->base;
}

void freeSample(ddsi_serdata* sample) { std::free(sample); }

size_t print(const ddsi_sertype*, const ddsi_serdata* from, char* buffer, size_t size) {
  const FrameSample& sample = frameSample(from);
  SampleCursor cursor(sample.bytes(), sample.size);
  std::string_view publisher;
  std::string_view key;
  if (cursor.text(publisher)) cursor.text(key);
  const int length = std::snprintf(buffer, size, R"({publisher:"%.*s",key:"%.*s"})",
                                   static_cast<int>(publisher.size()), publisher.data(),
                                   static_cast<int>(key.size()), key.data());
  return length < 0 ? 0 : static_cast<size_t>(length);
}

// The MD5 digest of the key fields in big-endian CDR: the keys are strings,
// of no fixed size.
void keyHash(const ddsi_serdata* from, ddsi_keyhash* hash, bool /*force_md5*/) {
  const FrameSample& sample = frameSample(from);
  SampleCursor cursor(sample.bytes(), sample.size);
  std::string_view fields[2];
  std::string big_endian;
  for (std::string_view& field : fields) {
    if (!cursor.text(field)) break;
    big_endian.resize(alignedTo4(big_endian.size()), '\0');
    const auto count = static_cast<uint32_t>(field.size() + 1);
    const char count_bytes[4] = {static_cast<char>(count >> 24), static_cast<char>(count >> 16),
                                 static_cast<char>(count >> 8), static_cast<char>(count)};
    big_endian.append(count_bytes, 4).append(field).push_back('\0');
  }
  ddsrt_md5_state_t md5;
  ddsrt_md5_init(&md5);
  ddsrt_md5_append(&md5, reinterpret_cast<const ddsrt_md5_byte_t*>(big_endian.data()),
                   static_cast<unsigned>(big_endian.size()));
  ddsrt_md5_finish(&md5, hash->value);
}

const ddsi_serdata_ops kSampleOps = {equalKeys,
                                     serializedSize,
                                     fromFragments,
                                     fromPieces,
                                     fromKeyHash,
                                     fromStruct,
                                     copySerialized,
                                     referenceSerialized,
                                     releaseSerialized,
                                     toStruct,
                                     toUntyped,
                                     untypedToStruct,
                                     freeSample,
                                     print,
                                     keyHash,
                                     nullptr,
                                     nullptr};

// Cyclone's sample arrays for this type hold dova_wire_Frame structs, which
// never get contents: toStruct() refuses.
void freeType(ddsi_sertype* type) {
  ddsi_sertype_fini(type);
  delete type;
}

void zeroStructs(const ddsi_sertype*, void* structs, size_t count) {
  std::memset(structs, 0, count * sizeof(dova_wire_Frame));
}

void resizeStructs(void** pointers, const ddsi_sertype*, void* old, size_t old_count,
                   size_t count) {
  auto* structs = static_cast<dova_wire_Frame*>(
      old_count == count ? old : dds_realloc(old, count * sizeof(dova_wire_Frame)));
  if (structs != nullptr && count > old_count) {
    std::memset(static_cast<void*>(structs + old_count), 0,
                (count - old_count) * sizeof(dova_wire_Frame));
  }
  for (size_t i = 0; i < count; ++i) pointers[i] = structs == nullptr ? nullptr : structs + i;
}

void freeStructs(const ddsi_sertype*, void** pointers, size_t count, dds_free_op_t operation) {
  if (count > 0 && (operation & DDS_FREE_ALL_BIT) != 0) dds_free(pointers[0]);
}

bool sameType(const ddsi_sertype*, const ddsi_sertype*) { return true; }

uint32_t typeHash(const ddsi_sertype*) { return 0; }

const ddsi_sertype_ops kTypeOps = {ddsi_sertype_v0, nullptr,  freeType, zeroStructs, resizeStructs,
                                   freeStructs,     sameType, typeHash, nullptr,     nullptr,
                                   nullptr,         nullptr,  nullptr,  nullptr};

void appendText(uint8_t*& out, std::string_view text) {
  const auto count = static_cast<uint32_t>(text.size() + 1);
  std::memcpy(out, &count, sizeof count);
  std::memcpy(out + sizeof count, text.data(), text.size());
  uint8_t* const end = out + sizeof count + count;
  end[-1] = 0;
  out += alignedTo4(sizeof count + count);
  std::memset(end, 0, static_cast<size_t>(out - end));
}

}  // namespace

ddsi_sertype* createFrameSampleType() {
  auto* type = new ddsi_sertype{};
  ddsi_sertype_init_flags(type, dova_wire_Frame_desc.m_typename, &kTypeOps, &kSampleOps, 0);
  return type;
}

FrameSampleRef makeFrameSample(const ddsi_sertype* type, std::string_view publisher,
                               std::string_view key, std::string_view md5, const uint8_t* frame,
                               size_t size) {
  const auto text_size = [](std::string_view text) { return alignedTo4(4 + text.size() + 1); };
  const size_t fields = text_size(publisher) + text_size(key) + text_size(md5) + 4;
  if (size > kMaxSampleSize - kHeaderSize - fields) return nullptr;
  FrameSample* sample = allocate(type, SDK_DATA, kHeaderSize + fields + alignedTo4(size));
  if (sample == nullptr) return nullptr;
  uint8_t* out = sample->bytes();
  const bool little_endian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;
  // Options: how many bytes at the end only pad the sample to a multiple of 4.
  const auto padding = static_cast<uint8_t>(alignedTo4(size) - size);
  const uint8_t header[kHeaderSize] = {0, little_endian ? uint8_t{1} : uint8_t{0}, 0, padding};
  std::memcpy(out, header, kHeaderSize);
  out += kHeaderSize;
  appendText(out, publisher);
  appendText(out, key);
  sample->key_end = static_cast<uint32_t>(out - sample->bytes());
  appendText(out, md5);
  const auto length = static_cast<uint32_t>(size);
  std::memcpy(out, &length, sizeof length);
  std::memcpy(out + sizeof length, frame, size);
  std::memset(out + sizeof length + size, 0, padding);
  const std::string_view key_fields = sample->key();
  sample->base.hash = ddsrt_mh3(key_fields.data(), key_fields.size(), type->serdata_basehash);
  return FrameSampleRef(&sample->base);
}

SampleCursor::SampleCursor(const uint8_t* bytes, size_t size)
    : bytes_(bytes), cursor_(bytes, size) {
  // Encoding identifiers are big-endian; odd ones mark little-endian bodies.
  ok_ = cursor_.skip(kHeaderSize);
  swap_ = ok_ && (((bytes[1] & 1) != 0) != (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__));
}

bool SampleCursor::text(std::string_view& value) {
  const uint8_t* data = nullptr;
  size_t count = 0;
  if (!octets(data, count) || count == 0 || data[count - 1] != 0) return fail();
  value = std::string_view(reinterpret_cast<const char*>(data), count - 1);
  return true;
}

bool SampleCursor::octets(const uint8_t*& data, size_t& length) {
  uint32_t count = 0;
  const size_t padding = (4 - cursor_.consumed() % 4) % 4;
  if (!ok_ || !cursor_.skip(padding) || !cursor_.readUint32(count)) return fail();
  if (swap_) count = __builtin_bswap32(count);
  const size_t start = cursor_.consumed();
  if (!cursor_.skip(count)) return fail();
  data = bytes_ + start;
  length = count;
  return true;
}

bool SampleCursor::fail() {
  ok_ = false;
  return false;
}

}  // namespace dova::platform
