#include "http/Utf8Check.h"

#include <cstring>

namespace netloop {
namespace {

constexpr uint64_t kHighBits = 0x8080808080808080ULL;

// Skips plain ASCII eight bytes at a time: text is mostly ASCII, and this is
// what keeps the check cheap next to the copy the bytes get anyway.
size_t SkipAscii(const uint8_t* p, size_t i, size_t len) {
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
