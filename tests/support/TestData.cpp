#include "support/TestData.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace testsupport {

namespace {

// splitmix64: a cheap full-avalanche mix, so neighbouring words look unrelated
// and a shifted or swapped piece of a body never matches by accident.
inline uint64_t Mix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

const char kTextAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

char DeterministicByte(uint64_t i) {
    return static_cast<char>(static_cast<uint8_t>(Mix(i >> 3) >> ((i & 7) * 8)));
}

void FillDeterministicBytes(uint64_t offset, char* out, size_t n) {
    // Leading bytes up to a word boundary, then whole words, then the tail.
    while (n > 0 && (offset & 7) != 0) {
        *out++ = DeterministicByte(offset++);
        --n;
    }
    uint64_t word = offset >> 3;
    for (; n >= 8; n -= 8, out += 8, ++word) {
        uint64_t v = Mix(word);
        unsigned char b[8];
        for (int k = 0; k < 8; ++k) b[k] = static_cast<unsigned char>(v >> (k * 8));
        std::memcpy(out, b, 8);
    }
    offset = word << 3;
    while (n > 0) {
        *out++ = DeterministicByte(offset++);
        --n;
    }
}

std::string DeterministicBytes(uint64_t n, uint64_t offset) {
    std::string s(n, '\0');
    FillDeterministicBytes(offset, s.data(), s.size());
    return s;
}

char DeterministicTextByte(uint64_t i) {
    return kTextAlphabet[static_cast<uint8_t>(DeterministicByte(i)) & 63];
}

void FillDeterministicText(uint64_t offset, char* out, size_t n) {
    FillDeterministicBytes(offset, out, n);
    for (size_t k = 0; k < n; ++k) out[k] = kTextAlphabet[static_cast<uint8_t>(out[k]) & 63];
}

std::string DeterministicText(uint64_t n, uint64_t offset) {
    std::string s(n, '\0');
    FillDeterministicText(offset, s.data(), s.size());
    return s;
}

struct Sha256::State {
    EVP_MD_CTX* ctx = nullptr;
    bool done = false;
    std::string hex;
};

Sha256::Sha256() : m_State(std::make_unique<State>()) {
    m_State->ctx = EVP_MD_CTX_new();
    if (!m_State->ctx || EVP_DigestInit_ex(m_State->ctx, EVP_sha256(), nullptr) != 1)
        throw std::runtime_error("SHA-256 init failed");
}

Sha256::~Sha256() { EVP_MD_CTX_free(m_State->ctx); }

void Sha256::Update(const void* data, size_t n) {
    if (!m_State->done && n > 0) EVP_DigestUpdate(m_State->ctx, data, n);
}

std::string Sha256::Hex() {
    if (!m_State->done) {
        unsigned char md[EVP_MAX_MD_SIZE];
        unsigned int len = 0;
        EVP_DigestFinal_ex(m_State->ctx, md, &len);
        static const char digits[] = "0123456789abcdef";
        m_State->hex.reserve(len * 2);
        for (unsigned int k = 0; k < len; ++k) {
            m_State->hex.push_back(digits[md[k] >> 4]);
            m_State->hex.push_back(digits[md[k] & 15]);
        }
        m_State->done = true;
    }
    return m_State->hex;
}

std::string Sha256Hex(std::string_view data) {
    Sha256 h;
    h.Update(data);
    return h.Hex();
}

std::string DeterministicSha256(uint64_t n) {
    Sha256 h;
    std::vector<char> buf(1 << 20);
    for (uint64_t off = 0; off < n;) {
        size_t piece = static_cast<size_t>(std::min<uint64_t>(buf.size(), n - off));
        FillDeterministicBytes(off, buf.data(), piece);
        h.Update(buf.data(), piece);
        off += piece;
    }
    return h.Hex();
}

}  // namespace testsupport
