// The pipeline's image records: headers with owned, preallocated buffers.
#pragma once

#include <cstddef>
#include <cstring>

#include "lumetra_depth.h"

namespace KorvLumetra {

// Buffers are allocated without being touched, so that capacity never used
// costs address space only, not resident memory.
inline LumoImage* newImageRecord(std::size_t bytes) {
  auto* record = new LumoImage{};
  record->data = new uint8_t[bytes];
  return record;
}

inline LumoDepthImage* newDepthRecord(std::size_t bytes) {
  auto* record = new LumoDepthImage{};
  record->data = new float[bytes / sizeof(float)];
  return record;
}

template <typename Record>
void deleteRecord(Record*& record) {
  if (record != nullptr) delete[] record->data;
  delete record;
  record = nullptr;
}

// Copies every header field and `size` bytes of data, keeping dst's buffer.
template <typename Dst, typename Src>
void copyRecord(Dst* dst, const Src* src) {
  dst->tag0 = src->tag0;
  dst->tag1 = src->tag1;
  dst->timestamp = src->timestamp;
  dst->width = src->width;
  dst->height = src->height;
  dst->channels = src->channels;
  dst->format = src->format;
  dst->stride = src->stride;
  dst->size = src->size;
  std::memcpy(dst->data, src->data, src->size);
}

}  // namespace KorvLumetra
