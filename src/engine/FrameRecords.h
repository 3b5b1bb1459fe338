// The pipeline's image records: headers with owned, preallocated buffers.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

#include "lumetra_depth.h"

namespace KorvLumetra {

// Buffers start zeroed, as the registration's nearest-surface test expects of
// an output never written, and come from calloc untouched: capacity never
// used costs address space only, not resident memory.
inline LumoImage* newImageRecord(std::size_t bytes) {
  void* data = std::calloc(bytes, 1);
  if (data == nullptr) throw std::bad_alloc();
  auto* record = new LumoImage{};
  record->data = static_cast<uint8_t*>(data);
  return record;
}

inline LumoDepthImage* newDepthRecord(std::size_t bytes) {
  void* data = std::calloc(bytes / sizeof(float), sizeof(float));
  if (data == nullptr) throw std::bad_alloc();
  auto* record = new LumoDepthImage{};
  record->data = static_cast<float*>(data);
  return record;
}

template <typename Record>
void deleteRecord(Record*& record) {
  if (record != nullptr) std::free(record->data);
  delete record;
  record = nullptr;
}

// Copies the header fields that describe the frame: tags, time stamp, shape,
// format and size; not the stride, which belongs to the element type.
template <typename Dst, typename Src>
void copyHeader(Dst* dst, const Src* src) {
  dst->tag0 = src->tag0;
  dst->tag1 = src->tag1;
  dst->timestamp = src->timestamp;
  dst->width = src->width;
  dst->height = src->height;
  dst->channels = src->channels;
  dst->format = src->format;
  dst->size = src->size;
}

// Copies every header field and `size` bytes of data, keeping dst's buffer.
template <typename Dst, typename Src>
void copyRecord(Dst* dst, const Src* src) {
  copyHeader(dst, src);
  dst->stride = src->stride;
  std::memcpy(dst->data, src->data, src->size);
}

}  // namespace KorvLumetra
