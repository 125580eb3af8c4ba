// Reproducible payloads and hashing shared by the test servers and the tests
// that talk to them, so a test can check a body of any size byte for byte (or
// by hash) without either side keeping it in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace testsupport {

// Byte i of an endless binary stream without short period (every byte value
// occurs). Any range of it can be produced on its own, quickly, so a server
// can serve /bytes/N in pieces and a test can compare any slice.
char DeterministicByte(uint64_t i);
// Bytes [offset, offset + n) of that stream.
std::string DeterministicBytes(uint64_t n, uint64_t offset = 0);
void FillDeterministicBytes(uint64_t offset, char* out, size_t n);

// Same idea restricted to 64 printable ASCII characters (A-Z a-z 0-9 + /), for
// payloads that must be valid UTF-8 text, such as WebSocket text messages.
char DeterministicTextByte(uint64_t i);
std::string DeterministicText(uint64_t n, uint64_t offset = 0);
void FillDeterministicText(uint64_t offset, char* out, size_t n);

// Incremental SHA-256; Hex() ends the computation (further Update calls start
// nothing new and are ignored).
class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;
    void Update(const void* data, size_t n);
    void Update(std::string_view data) { Update(data.data(), data.size()); }
    // Lowercase hex digest.
    std::string Hex();

private:
    struct State;
    std::unique_ptr<State> m_State;
};

std::string Sha256Hex(std::string_view data);
// SHA-256 of DeterministicBytes(n), computed in pieces (fine for gigabytes).
std::string DeterministicSha256(uint64_t n);

}  // namespace testsupport
