#include "frame/ConnectionGate.h"

#include <curl/curl.h>

#include <algorithm>

#include "frame/HttpFrame.h"
#include "http/HttpHandle.h"

namespace netloop {
namespace {

// "scheme://host:port" of `url`, the port being the scheme's default when the
// URL names none. A WebSocket's upgrade is an HTTP request to the same server
// and libcurl counts its connection there, so ws and wss count as http and
// https. A URL libcurl cannot parse gets the empty line; libcurl fails it.
std::string HostKeyOf(const std::string& url) {
    CURLU* parsed = curl_url();
    if (parsed == nullptr) return std::string();
    std::string key;
    char* scheme = nullptr;
    char* host = nullptr;
    char* port = nullptr;
    if (curl_url_set(parsed, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
        curl_url_get(parsed, CURLUPART_SCHEME, &scheme, 0) == CURLUE_OK &&
        curl_url_get(parsed, CURLUPART_HOST, &host, 0) == CURLUE_OK &&
        curl_url_get(parsed, CURLUPART_PORT, &port, CURLU_DEFAULT_PORT) == CURLUE_OK) {
        std::string name = scheme;
        if (name == "ws") name = "http";
        if (name == "wss") name = "https";
        key = name + "://" + host + ":" + port;
    }
    curl_free(scheme);
    curl_free(host);
    curl_free(port);
    curl_url_cleanup(parsed);
    return key;
}

}  // namespace

long CConnectionGate::ConnectionsOf(const HostLine& line, long streams, long exclusive) {
    const long shared = line.multiplexes ? (streams + kMaxStreamsPerConnection - 1) / kMaxStreamsPerConnection : streams;
    return shared + exclusive;
}

bool CConnectionGate::HasRoom(const HostLine& line, bool exclusive) const {
    const long now = ConnectionsOf(line, line.streams, line.exclusive);
    const long after = exclusive ? ConnectionsOf(line, line.streams, line.exclusive + 1)
                                 : ConnectionsOf(line, line.streams + 1, line.exclusive);
    return after <= kMaxHostConnections && m_Connections - now + after <= kMaxTotalConnections;
}

void CConnectionGate::Count(HostLine& line, GateSeat& seat, long delta) {
    const long before = ConnectionsOf(line, line.streams, line.exclusive);
    (seat.exclusive ? line.exclusive : line.streams) += delta;
    m_Connections += ConnectionsOf(line, line.streams, line.exclusive) - before;
    seat.counted = delta > 0;
}

bool CConnectionGate::Admit(const std::shared_ptr<CHttpHandle>& handle, GateSeat& seat, const std::string& url,
                            bool exclusive) {
    seat.host = HostKeyOf(url);
    seat.exclusive = exclusive;
    HostLine& line = m_Hosts[seat.host];
    // Nobody overtakes a transfer already waiting for the same host.
    if (line.waiting.empty() && HasRoom(line, exclusive)) {
        Count(line, seat, 1);
        return true;
    }
    seat.ticket = m_NextTicket++;
    line.waiting.emplace(seat.ticket, handle);
    return false;
}

void CConnectionGate::Withdraw(GateSeat& seat) {
    if (seat.ticket == 0) return;
    auto it = m_Hosts.find(seat.host);
    if (it != m_Hosts.end()) it->second.waiting.erase(seat.ticket);
    seat.ticket = 0;
    ForgetIfUnused(seat.host);
}

void CConnectionGate::Left(GateSeat& seat, long httpVersion) {
    if (!seat.counted) return;
    auto it = m_Hosts.find(seat.host);
    if (it == m_Hosts.end()) return;
    HostLine& line = it->second;
    Count(line, seat, -1);
    if (httpVersion != 0 && !seat.exclusive) {
        // Learnt from a finished response; the streams still counted are
        // recounted under what the host is now known to do.
        const long before = ConnectionsOf(line, line.streams, line.exclusive);
        line.multiplexes = httpVersion == CURL_HTTP_VERSION_2_0 || httpVersion == CURL_HTTP_VERSION_3;
        m_Connections += ConnectionsOf(line, line.streams, line.exclusive) - before;
    }
    ForgetIfUnused(seat.host);
}

std::shared_ptr<CHttpHandle> CConnectionGate::TakeNext() {
    HostLine* best = nullptr;
    for (auto& entry : m_Hosts) {
        HostLine& line = entry.second;
        if (line.waiting.empty()) continue;
        if (best != nullptr && best->waiting.begin()->first < line.waiting.begin()->first) continue;
        if (HasRoom(line, line.waiting.begin()->second->Seat().exclusive)) best = &line;
    }
    if (best == nullptr) return nullptr;
    std::shared_ptr<CHttpHandle> next = std::move(best->waiting.begin()->second);
    best->waiting.erase(best->waiting.begin());
    GateSeat& seat = next->Seat();
    seat.ticket = 0;
    Count(*best, seat, 1);
    return next;
}

std::vector<std::shared_ptr<CHttpHandle>> CConnectionGate::TakeAllWaiting() {
    std::vector<std::shared_ptr<CHttpHandle>> all;
    for (auto& entry : m_Hosts) {
        for (auto& waiting : entry.second.waiting) all.push_back(std::move(waiting.second));
        entry.second.waiting.clear();
    }
    // In the order they were added.
    std::sort(all.begin(), all.end(), [](const std::shared_ptr<CHttpHandle>& a, const std::shared_ptr<CHttpHandle>& b) {
        return a->Seat().ticket < b->Seat().ticket;
    });
    for (auto& handle : all) handle->Seat().ticket = 0;
    return all;
}

void CConnectionGate::ForgetIfUnused(const std::string& host) {
    auto it = m_Hosts.find(host);
    if (it == m_Hosts.end()) return;
    const HostLine& line = it->second;
    // A host known to multiplex stays known, or its next burst would start
    // again at one transfer per connection.
    if (line.waiting.empty() && line.streams == 0 && line.exclusive == 0 && !line.multiplexes) m_Hosts.erase(it);
}

// ---------------------------------------------------------------------------
// The frame's side

void CHttpFrame::StartWaiting() {
    // Once the frame stops libcurl's time-outs no longer run: nothing new may
    // start then. Inside libcurl the multi handle takes no new transfer.
    if (!m_Gate || !m_Running.load() || InsideCurl()) return;
    std::shared_ptr<CHttpFrame> self = shared_from_this();
    while (std::shared_ptr<CHttpHandle> next = m_Gate->TakeNext()) next->StartWaited(self);
}

void CHttpFrame::LeaveGate(CURL* easy) {
    void* holder = nullptr;
    if (curl_easy_getinfo(easy, CURLINFO_PRIVATE, &holder) != CURLE_OK || holder == nullptr) return;
    auto* self = static_cast<std::shared_ptr<CHttpHandle>*>(holder);
    if (*self) (*self)->LeaveGate(*m_Gate);
}

void CHttpFrame::EndWaitingAtStop() {
    if (!m_Gate) return;
    // Accepted, but never to run: they end as transfers that failed, and the
    // line holds no reference to them any more.
    for (const std::shared_ptr<CHttpHandle>& handle : m_Gate->TakeAllWaiting())
        handle->EndUnstarted("[NETLOOP]%s not started: the frame stopped while it waited for a connection");
}

}  // namespace netloop
