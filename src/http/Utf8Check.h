// Incremental UTF-8 validation (RFC 3629) for text that arrives in pieces: a
// WebSocket text message may be split anywhere, also inside a character, so
// the check keeps the little it needs between pieces and reads every byte
// exactly once.
#pragma once

#include <cstddef>
#include <cstdint>

namespace netloop {

class CUtf8Check {
public:
    // Checks the next piece of the text. False at the first byte that no valid
    // text can contain at that place (stray continuation byte, overlong form,
    // surrogate, value past U+10FFFF); the check stays failed until Reset.
    bool Feed(const char* data, size_t len);
    // True when the text so far is valid and ends on a character boundary.
    bool Complete() const { return m_Need == 0 && !m_Bad; }
    void Reset() { *this = CUtf8Check(); }

private:
    bool Fail() {
        m_Bad = true;
        return false;
    }

    bool m_Bad = false;
    uint8_t m_Need = 0;    // continuation bytes still due for the current character
    uint8_t m_Low = 0x80;  // range of the next continuation byte; narrower after
    uint8_t m_High = 0xBF; // E0, ED, F0 and F4, which rule out overlongs and surrogates
};

}  // namespace netloop
