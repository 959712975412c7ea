#pragma once

// Everything in the project that depends on the processor or on the C
// library, in one place.  Each piece has a portable form that gives the same
// results, and a measurement in bench/README.md ("Platform-specific code")
// that says what it gains on the machine it was tuned on.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__x86_64__)
#include <emmintrin.h>
#endif

namespace kavra {
namespace platform {

// The number of keys below x, on keys that ascend, n a multiple of 4 (keys
// past a line's own are +infinity, below no x).  A NaN x is below no key.
// Counting compares every key but depends on nothing but x, so no branch
// can be mispredicted.  SSE2 compares two keys per instruction; the same
// count as a plain loop makes the PVT calculations up to twice as slow:
// bench/README.md, "Counting search".
inline std::size_t CountKeysBelow(const double* keys, std::size_t n, double x)
{
#if defined(__x86_64__)
    // A true comparison is a lane of all ones, -1 as an integer: subtracting
    // the lanes counts them.
    const __m128d value = _mm_set1_pd(x);
    __m128i low = _mm_setzero_si128();
    __m128i high = _mm_setzero_si128();
    for (std::size_t r = 0; r < n; r += 4) {
        low = _mm_sub_epi64(low, _mm_castpd_si128(_mm_cmplt_pd(_mm_loadu_pd(keys + r), value)));
        high = _mm_sub_epi64(high, _mm_castpd_si128(_mm_cmplt_pd(_mm_loadu_pd(keys + r + 2), value)));
    }
    const __m128i both = _mm_add_epi64(low, high);
    return static_cast<std::size_t>(_mm_cvtsi128_si64(both) + _mm_cvtsi128_si64(_mm_unpackhi_epi64(both, both)));
#else
    std::size_t count = 0;
    for (std::size_t r = 0; r < n; ++r)
        count += keys[r] < x ? 1 : 0;
    return count;
#endif
}

// Lines of ascending keys up to this many rows are searched by counting,
// longer ones by fixed halvings.  On the bench's tables (10 to 15 rows)
// the calculations take 27-99 % longer when halving instead:
// bench/README.md, "Counting search".
constexpr std::size_t countedRows = 32;

// How a new result array is best written depends on where its memory comes
// from.  A result beyond the second-level cache (1 MB here) but below the
// allocator's largest reusable block (32 MB with glibc) mostly lies in
// reused memory that is no longer cached: stores that bypass the caches
// save reading every line before it is overwritten.  A larger result is
// fresh pages that the kernel has just zeroed, still cached, where plain
// stores are no worse.  bench/README.md, "Result stores": 41-46 % of the
// time of a K reduction at 4 and 8 MB, nothing measurable at 40 and 80 MB.
inline bool BypassCacheForResult(std::size_t bytes)
{
    return bytes >= (std::size_t(1) << 20) && bytes <= (std::size_t(32) << 20);
}

// memcpy with stores that bypass the caches (plain memcpy where SSE2 is
// missing).  CopyBypassingCacheDone() must follow the last of a series.
inline void CopyBypassingCache(char* destination, const char* source, std::size_t bytes)
{
#if defined(__x86_64__)
    std::size_t head = (16 - reinterpret_cast<std::uintptr_t>(destination) % 16) % 16;
    head = std::min(head, bytes);
    std::memcpy(destination, source, head);
    for (std::size_t at = head; at + 16 <= bytes; at += 16)
        _mm_stream_si128(reinterpret_cast<__m128i*>(destination + at),
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(source + at)));
    const std::size_t done = head + (bytes - head) / 16 * 16;
    std::memcpy(destination + done, source + done, bytes - done);
#else
    std::memcpy(destination, source, bytes);
#endif
}

inline void CopyBypassingCacheDone()
{
#if defined(__x86_64__)
    _mm_sfence(); // the bypassing stores are weakly ordered
#endif
}

} // namespace platform
} // namespace kavra
