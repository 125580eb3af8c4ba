#include "loopback/TestData.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace testsupport {

namespace {

// splitmix64: a cheap full-avalanche mix.
inline uint64_t Mix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

const char kTextAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The stream is cut into 4 KiB blocks; block k is a 4 KiB window of a 68 KiB
// random table starting at a position drawn from k. Filling is then one
// memcpy per block from a cache-resident table (gigabytes per second, and
// cheap under sanitizers), while a dropped, repeated, swapped or shifted
// piece of a body still never matches.
constexpr uint64_t kBlock = 4096;
constexpr size_t kWindows = 65536;

struct Tables {
    char binary[kWindows + kBlock];
    char text[kWindows + kBlock];
    Tables() {
        for (size_t i = 0; i < sizeof binary; i += 8) {
            uint64_t v = Mix(i ^ 0x6E65746C6F6F70ull);
            for (size_t k = 0; k < 8; ++k) binary[i + k] = static_cast<char>(static_cast<uint8_t>(v >> (k * 8)));
        }
        for (size_t i = 0; i < sizeof text; ++i) text[i] = kTextAlphabet[static_cast<uint8_t>(binary[i]) & 63];
    }
};

const Tables& GetTables() {
    static const Tables tables;
    return tables;
}

inline size_t WindowStart(uint64_t block) { return static_cast<size_t>(Mix(block) % kWindows); }

void Fill(const char* table, uint64_t offset, char* out, size_t n) {
    while (n > 0) {
        uint64_t within = offset % kBlock;
        size_t piece = static_cast<size_t>(std::min<uint64_t>(n, kBlock - within));
        std::memcpy(out, table + WindowStart(offset / kBlock) + within, piece);
        out += piece;
        offset += piece;
        n -= piece;
    }
}

}  // namespace

char DeterministicByte(uint64_t i) { return GetTables().binary[WindowStart(i / kBlock) + i % kBlock]; }

void FillDeterministicBytes(uint64_t offset, char* out, size_t n) { Fill(GetTables().binary, offset, out, n); }

std::string DeterministicBytes(uint64_t n, uint64_t offset) {
    std::string s(n, '\0');
    FillDeterministicBytes(offset, s.data(), s.size());
    return s;
}

char DeterministicTextByte(uint64_t i) { return GetTables().text[WindowStart(i / kBlock) + i % kBlock]; }

void FillDeterministicText(uint64_t offset, char* out, size_t n) { Fill(GetTables().text, offset, out, n); }

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
