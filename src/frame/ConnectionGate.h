// CConnectionGate: the line in which the transfers of a frame with connection
// limits wait for a connection, outside libcurl.
//
// libcurl keeps a transfer that finds no free connection inside its multi
// handle, retries every such transfer at each connection change (quadratic in
// their number) and lets the wait eat into the transfer's time-outs, so a burst
// of transfers times out there. The gate hands libcurl only as many transfers
// per host as the limits can run at once and keeps the rest in line: first
// added, first run, one line per host (scheme, host, port), so that a slow host
// holds up only its own transfers. Loop thread only.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace netloop {

class CHttpHandle;

// The connection limits of a limited frame, set on its multi handle.
constexpr long kMaxHostConnections = 2;
constexpr long kMaxTotalConnections = 10;
constexpr long kMaxStreamsPerConnection = 50;
constexpr long kMaxKeptConnections = 4;

// Where one transfer stands at the gate; a field of the transfer's handle.
struct GateSeat {
    std::string host;        // the line it belongs to, while waiting or counted
    uint64_t ticket = 0;     // its place in that line while waiting, 0 otherwise
    bool counted = false;    // handed to libcurl and counted against the limits
    bool exclusive = false;  // needs a connection of its own (a WebSocket)
};

class CConnectionGate {
public:
    // A transfer accepted by the frame. True: there is room now, it is counted
    // and goes to libcurl. False: it waits at the end of its host's line.
    bool Admit(const std::shared_ptr<CHttpHandle>& handle, GateSeat& seat, const std::string& url, bool exclusive);
    // A waiting transfer leaves its line without having run.
    void Withdraw(GateSeat& seat);
    // A counted transfer has left libcurl. `httpVersion` is libcurl's
    // CURLINFO_HTTP_VERSION of it (0: no response): it tells whether the
    // host's connections multiplex.
    void Left(GateSeat& seat, long httpVersion);
    // The longest-waiting transfer for which there is room now, counted as
    // handed to libcurl; empty when none may go.
    std::shared_ptr<CHttpHandle> TakeNext();
    // Empties every line (the frame is stopping); the seats are cleared.
    std::vector<std::shared_ptr<CHttpHandle>> TakeAllWaiting();

private:
    struct HostLine {
        std::map<uint64_t, std::shared_ptr<CHttpHandle>> waiting;  // by ticket, oldest first
        long streams = 0;         // counted HTTP transfers
        long exclusive = 0;       // counted WebSockets
        bool multiplexes = false;  // the host's last response came over HTTP/2 or HTTP/3
    };
    static long ConnectionsOf(const HostLine& line, long streams, long exclusive);
    bool HasRoom(const HostLine& line, bool exclusive) const;
    void Count(HostLine& line, GateSeat& seat, long delta);
    void ForgetIfUnused(const std::string& host);

    std::unordered_map<std::string, HostLine> m_Hosts;
    long m_Connections = 0;  // connections the counted transfers need, all hosts
    uint64_t m_NextTicket = 1;
};

}  // namespace netloop
