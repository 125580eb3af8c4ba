#include "http/Utf8Check.h"

#include <cstring>

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#endif

namespace netloop {
namespace {

constexpr uint64_t kHighBits = 0x8080808080808080ULL;

// Skips plain ASCII 64 bytes at a time with SSE2 (every x86-64 has it), else
// 32 and then 8: text is mostly ASCII, and this is what keeps the check as
// cheap as the copy the bytes get anyway (a 1 MiB message costs well under a
// millisecond more).
size_t SkipAscii(const uint8_t* p, size_t i, size_t len) {
#if defined(__SSE2__) || defined(_M_X64)
    while (i + 64 <= len) {
        const __m128i* v = reinterpret_cast<const __m128i*>(p + i);
        const __m128i any = _mm_or_si128(_mm_or_si128(_mm_loadu_si128(v), _mm_loadu_si128(v + 1)),
                                         _mm_or_si128(_mm_loadu_si128(v + 2), _mm_loadu_si128(v + 3)));
        if (_mm_movemask_epi8(any) != 0) break;
        i += 64;
    }
#endif
    while (i + 32 <= len) {
        uint64_t word[4];
        std::memcpy(word, p + i, sizeof(word));
        if (((word[0] | word[1] | word[2] | word[3]) & kHighBits) != 0) break;
        i += 32;
    }
    while (i + 8 <= len) {
        uint64_t word;
        std::memcpy(&word, p + i, sizeof(word));
        if ((word & kHighBits) != 0) break;
        i += 8;
    }
    while (i < len && p[i] < 0x80) ++i;
    return i;
}

}  // namespace

bool CUtf8Check::Feed(const char* data, size_t len) {
    if (m_Bad) return false;
    const uint8_t* p = reinterpret_cast<const uint8_t*>(data);
    size_t i = 0;
    while (i < len) {
        if (m_Need != 0) {
            const uint8_t c = p[i++];
            if (c < m_Low || c > m_High) return Fail();
            m_Low = 0x80;
            m_High = 0xBF;
            --m_Need;
            continue;
        }
        i = SkipAscii(p, i, len);
        if (i == len) break;
        const uint8_t lead = p[i++];
        if (lead >= 0xC2 && lead <= 0xDF) {
            m_Need = 1;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            m_Need = 2;
            if (lead == 0xE0) m_Low = 0xA0;   // no overlong three-byte forms
            if (lead == 0xED) m_High = 0x9F;  // no UTF-16 surrogates
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            m_Need = 3;
            if (lead == 0xF0) m_Low = 0x90;   // no overlong four-byte forms
            if (lead == 0xF4) m_High = 0x8F;  // nothing past U+10FFFF
        } else {
            return Fail();  // a continuation byte with no lead, C0/C1, or F5 and up
        }
    }
    return true;
}

}  // namespace netloop
