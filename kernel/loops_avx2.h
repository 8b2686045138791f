#pragma once

#include <immintrin.h>

// Loads and stores for the files of AVX2 loops. Each file has its own copy: the linker could use a shared
// one, compiled for AVX2, in code that must run on any processor.

namespace {

inline __m128i Load16(const void* from) { return _mm_loadu_si128(static_cast<const __m128i*>(from)); }
inline __m256i Load32(const void* from) { return _mm256_loadu_si256(static_cast<const __m256i*>(from)); }
inline void Store16(void* to, __m128i bytes) { _mm_storeu_si128(static_cast<__m128i*>(to), bytes); }
inline void Store32(void* to, __m256i bytes) { _mm256_storeu_si256(static_cast<__m256i*>(to), bytes); }

/// Loads 16 bytes from each address into the lower and the upper half.
inline __m256i LoadHalves(const void* lower, const void* upper) {
  return _mm256_inserti128_si256(_mm256_castsi128_si256(Load16(lower)), Load16(upper), 1);
}

}  // namespace
