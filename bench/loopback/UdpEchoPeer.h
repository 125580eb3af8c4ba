// A UDP peer for tests: bound to 127.0.0.1 (or ::1) on an ephemeral port, it
// sends every datagram back to its sender unchanged (empty ones and maximum
// size ones included) from its own thread, until destroyed.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace testsupport {

struct UdpEchoPeerOptions {
    bool ipv6 = false;            // bind ::1 instead of 127.0.0.1
    size_t maxRecords = 100000;   // most recent datagrams kept by Received()
    uint64_t maxKeptPayloadBytes = 64ull << 20;  // beyond this, older records lose their payload
};

struct UdpDatagram {
    std::string sender;   // "127.0.0.1:PORT" or "[::1]:PORT"
    std::string payload;
    size_t size = 0;
    bool payloadKept = true;  // false: dropped (see maxKeptPayloadBytes)
};

class UdpEchoPeer {
public:
    using Options = UdpEchoPeerOptions;

    UdpEchoPeer();
    explicit UdpEchoPeer(const Options& options);
    ~UdpEchoPeer();
    UdpEchoPeer(const UdpEchoPeer&) = delete;
    UdpEchoPeer& operator=(const UdpEchoPeer&) = delete;

    uint16_t Port() const;
    std::string Host() const;  // "127.0.0.1" or "::1"

    uint64_t ReceivedCount() const;
    uint64_t EchoedCount() const;
    // The most recent maxRecords datagrams, in arrival order (so per sender too).
    std::vector<UdpDatagram> Received() const;
    void ClearReceived();  // forgets the records (the counters go on)
    // Waits until ReceivedCount() >= n; false on timeout.
    bool WaitForDatagrams(uint64_t n, std::chrono::milliseconds timeout) const;

    // While muted, datagrams are received and recorded but not echoed.
    void SetMute(bool mute);

private:
    struct Impl;
    std::unique_ptr<Impl> m_Impl;
};

}  // namespace testsupport
