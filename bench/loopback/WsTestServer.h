// A WebSocket (ws / wss) server for tests, in-process on its own threads,
// bound to a loopback address on an ephemeral port; started by the
// constructor, stopped promptly by the destructor whatever its clients do.
//
// Upgrade paths:
//   /refuse/CODE   refuses the upgrade: HTTP status CODE (100..599 but 101;
//                  else 400), body "refused", then closes the connection.
//   /slowread?pause=MS&piece=BYTES&interval=MS
//                  upgrades with a small receive buffer, reads nothing for
//                  `pause` ms (default 500), then reads at most `piece` bytes
//                  (default 16384) every `interval` ms (default 2), so a big
//                  send from the client meets a full socket buffer. Messages
//                  of at most 1 MiB are echoed, bigger ones only recorded.
//   /silent        upgrades, records what arrives, never sends anything
//                  (protocol replies to ping and close excepted).
//   anything else  echo: every message is sent back with the same type (as one
//                  frame), up to Options::maxEchoBytes; bigger ones are only
//                  recorded. A text message starting with "cmd:" is a control
//                  command instead (below), never echoed.
// Requests that are not WebSocket upgrades get 400. When the client offers
// subprotocols (Sec-WebSocket-Protocol), the first one is accepted.
//
// Control commands (a text message from the client, or CommandAll() /
// SetOnConnect() from the test). Everything a connection sends, echoes and
// command results alike, goes out in the order it was caused:
//   cmd:frag N TEXT       TEXT as one text message in N frames (the first a
//                         text frame, the rest continuations), split evenly.
//   cmd:fragempty N TEXT  the same in N frames (N >= 2) of which the last is an
//                         empty final continuation frame.
//   cmd:ping [PAYLOAD]    a ping (payload up to 125 bytes).
//   cmd:close CODE [REASON]
//                         a close frame with that code and reason (CODE 0: a
//                         close frame without payload), then completes the
//                         closing handshake.
//   cmd:big N             an N-byte binary message of DeterministicBytes(N);
//   cmd:bigtext N         an N-byte text message of DeterministicText(N).
//                         One frame up to 16 MiB, 1 MiB frames beyond.
//   cmd:empty             an empty text message.
//   cmd:text TEXT         TEXT as a text message.
//   cmd:drop              closes the TCP connection (FIN) without a close frame.
//   cmd:reset             resets the TCP connection (RST) without a close frame.
//   cmd:count             a text message with the decimal number of messages
//                         this connection received before this command.
//   any other cmd:...     a text message "unknown command: <the message>".
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "loopback/TestData.h"

namespace testsupport {

struct WsTestServerOptions {
    bool tls = false;                       // wss with TestTls()
    bool ipv6 = false;                      // bind ::1 instead of 127.0.0.1
    int threads = 2;                        // I/O threads
    uint64_t maxEchoBytes = 256ull << 20;   // bigger messages are recorded, not echoed
    size_t maxRecords = 100000;             // most recent messages kept by Received()
    uint64_t maxKeptPayloadBytes = 64ull << 20;  // beyond this, older records lose their payload
};

struct WsMessage {
    uint64_t connection = 0;  // 1-based number of the connection, in accept order
    uint64_t index = 0;       // 0-based position among that connection's messages
    bool text = false;
    uint64_t size = 0;
    std::string sha256;       // lowercase hex
    std::string payload;      // when size < 1 MiB, else empty
    bool payloadKept = true;  // false: too big, or dropped (see maxKeptPayloadBytes)
};

struct WsConnectionInfo {
    uint64_t id = 0;
    std::string target;  // of the upgrade request
    std::vector<std::pair<std::string, std::string>> headers;  // of the upgrade request
    bool upgraded = false;
    bool closed = false;      // the connection has ended
    int closeCode = -1;       // code of the close frame the client sent, -1 if none
    std::string closeReason;
    uint64_t messages = 0;    // messages received
    uint64_t pongs = 0;       // pongs received
};

class WsTestServer {
public:
    using Options = WsTestServerOptions;

    WsTestServer();
    explicit WsTestServer(const Options& options);
    ~WsTestServer();
    WsTestServer(const WsTestServer&) = delete;
    WsTestServer& operator=(const WsTestServer&) = delete;

    uint16_t Port() const;
    // ws://127.0.0.1:P/path, wss://localhost:P/path (tls), ws(s)://[::1]:P/path (ipv6).
    std::string Url(const std::string& path = "/") const;

    uint64_t ConnectionCount() const;  // TCP connections accepted
    uint64_t UpgradeCount() const;     // WebSocket handshakes completed
    uint64_t ClosedCount() const;      // upgraded connections that have ended
    uint64_t MessageCount() const;     // messages received, all connections
    std::vector<WsConnectionInfo> Connections() const;

    // Received messages in arrival order (per connection and overall).
    std::vector<WsMessage> Received() const;
    std::vector<WsMessage> ReceivedOn(uint64_t connection) const;
    // Bounded waits on the counters above; false on timeout.
    bool WaitForMessages(uint64_t n, std::chrono::milliseconds timeout) const;
    bool WaitForUpgrades(uint64_t n, std::chrono::milliseconds timeout) const;
    bool WaitForClosed(uint64_t n, std::chrono::milliseconds timeout) const;

    // Echo on/off for all connections (commands still work).
    void SetEcho(bool on);
    // Items run by every connection upgraded from now on, right after the
    // handshake: "cmd:..." runs that command, anything else is sent as text.
    void SetOnConnect(std::vector<std::string> items);
    // Runs a "cmd:..." item (or sends plain text) on every open connection;
    // returns how many connections it was given to.
    size_t CommandAll(const std::string& item);
    size_t SendTextAll(const std::string& text) { return CommandAll("cmd:text " + text); }
    size_t PingAll() { return CommandAll("cmd:ping"); }
    size_t CloseAll(int code, const std::string& reason) {
        return CommandAll("cmd:close " + std::to_string(code) + " " + reason);
    }
    size_t DropAll() { return CommandAll("cmd:drop"); }

private:
    struct Impl;
    std::unique_ptr<Impl> m_Impl;
};

}  // namespace testsupport
