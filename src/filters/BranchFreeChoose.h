// Branch-free choice between two computed floats, bit for bit. A plain ?: on
// floats stays a branch (the arithmetic in it might trap), which stops the
// filter loops from vectorising.
#pragma once

#include <cstdint>
#include <cstring>

namespace KorvLumetra {

inline float choose(bool condition, float ifTrue, float ifFalse) {
  uint32_t t, f;
  std::memcpy(&t, &ifTrue, sizeof t);
  std::memcpy(&f, &ifFalse, sizeof f);
  const uint32_t mask = 0u - static_cast<uint32_t>(condition);
  const uint32_t bits = (t & mask) | (f & ~mask);
  float out;
  std::memcpy(&out, &bits, sizeof out);
  return out;
}

}  // namespace KorvLumetra
