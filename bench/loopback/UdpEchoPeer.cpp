#include "loopback/UdpEchoPeer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "loopback/detail/RecordLog.h"

namespace testsupport {

namespace {

std::string SenderName(const sockaddr_storage& addr) {
    char host[INET6_ADDRSTRLEN] = "";
    if (addr.ss_family == AF_INET6) {
        const auto& a = reinterpret_cast<const sockaddr_in6&>(addr);
        inet_ntop(AF_INET6, &a.sin6_addr, host, sizeof host);
        return "[" + std::string(host) + "]:" + std::to_string(ntohs(a.sin6_port));
    }
    const auto& a = reinterpret_cast<const sockaddr_in&>(addr);
    inet_ntop(AF_INET, &a.sin_addr, host, sizeof host);
    return std::string(host) + ":" + std::to_string(ntohs(a.sin_port));
}

void SetBuffer(int fd, int name, int forced, int bytes) {
    // Root may go past rmem_max/wmem_max; others get what the limit allows.
    if (setsockopt(fd, SOL_SOCKET, forced, &bytes, sizeof bytes) != 0)
        setsockopt(fd, SOL_SOCKET, name, &bytes, sizeof bytes);
}

}  // namespace

struct UdpEchoPeer::Impl {
    Options options;
    int fd = -1;
    int wake = -1;
    uint16_t port = 0;
    std::atomic<bool> mute{false};
    std::atomic<uint64_t> received{0};
    std::atomic<uint64_t> echoed{0};
    mutable std::mutex mutex;
    mutable std::condition_variable cond;
    std::unique_ptr<detail::RecordLog<UdpDatagram>> records;
    std::thread thread;

    void Run() {
        std::vector<char> buf(65536);
        pollfd fds[2] = {{fd, POLLIN, 0}, {wake, POLLIN, 0}};
        for (;;) {
            if (poll(fds, 2, -1) < 0) {
                if (errno == EINTR) continue;
                return;
            }
            if (fds[1].revents) return;
            // Drain a burst per wake-up (bounded, so a stop request is seen
            // even under a steady flood).
            for (int burst = 0; burst < 256; ++burst) {
                sockaddr_storage from{};
                socklen_t fromLen = sizeof from;
                ssize_t n = recvfrom(fd, buf.data(), buf.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from),
                                     &fromLen);
                if (n < 0) break;  // EAGAIN, or an ICMP error from an earlier echo
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    records->Add({SenderName(from), std::string(buf.data(), static_cast<size_t>(n)),
                                  static_cast<size_t>(n), true});
                    received.fetch_add(1);
                }
                cond.notify_all();
                if (!mute.load()) {
                    // A full send buffer blocks briefly (SO_SNDTIMEO) rather
                    // than dropping the echo at once.
                    if (sendto(fd, buf.data(), static_cast<size_t>(n), 0, reinterpret_cast<sockaddr*>(&from),
                               fromLen) == n)
                        echoed.fetch_add(1);
                }
            }
        }
    }
};

UdpEchoPeer::UdpEchoPeer() : UdpEchoPeer(Options{}) {}

UdpEchoPeer::UdpEchoPeer(const Options& options) : m_Impl(std::make_unique<Impl>()) {
    Impl& d = *m_Impl;
    d.options = options;
    d.records = std::make_unique<detail::RecordLog<UdpDatagram>>(options.maxRecords, options.maxKeptPayloadBytes,
                                                                &UdpDatagram::payload, &UdpDatagram::payloadKept);
    d.fd = socket(options.ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (d.fd < 0) throw std::runtime_error(std::string("UdpEchoPeer: socket: ") + std::strerror(errno));
    SetBuffer(d.fd, SO_RCVBUF, SO_RCVBUFFORCE, 8 << 20);
    SetBuffer(d.fd, SO_SNDBUF, SO_SNDBUFFORCE, 8 << 20);
    timeval sendTimeout{0, 200 * 1000};
    setsockopt(d.fd, SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof sendTimeout);
    sockaddr_storage addr{};
    socklen_t len;
    if (options.ipv6) {
        auto& a = reinterpret_cast<sockaddr_in6&>(addr);
        a.sin6_family = AF_INET6;
        a.sin6_addr = in6addr_loopback;
        len = sizeof a;
    } else {
        auto& a = reinterpret_cast<sockaddr_in&>(addr);
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        len = sizeof a;
    }
    if (bind(d.fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
        getsockname(d.fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        int err = errno;
        close(d.fd);
        throw std::runtime_error(std::string("UdpEchoPeer: bind: ") + std::strerror(err));
    }
    d.port = ntohs(options.ipv6 ? reinterpret_cast<sockaddr_in6&>(addr).sin6_port
                                : reinterpret_cast<sockaddr_in&>(addr).sin_port);
    d.wake = eventfd(0, EFD_CLOEXEC);
    if (d.wake < 0) {
        close(d.fd);
        throw std::runtime_error("UdpEchoPeer: eventfd failed");
    }
    d.thread = std::thread([&d] { d.Run(); });
}

UdpEchoPeer::~UdpEchoPeer() {
    uint64_t one = 1;
    if (write(m_Impl->wake, &one, sizeof one) < 0) {
        // cannot happen for an eventfd that is far from overflowing
    }
    m_Impl->thread.join();
    close(m_Impl->wake);
    close(m_Impl->fd);
}

uint16_t UdpEchoPeer::Port() const { return m_Impl->port; }
std::string UdpEchoPeer::Host() const { return m_Impl->options.ipv6 ? "::1" : "127.0.0.1"; }
uint64_t UdpEchoPeer::ReceivedCount() const { return m_Impl->received.load(); }
uint64_t UdpEchoPeer::EchoedCount() const { return m_Impl->echoed.load(); }

std::vector<UdpDatagram> UdpEchoPeer::Received() const {
    std::lock_guard<std::mutex> lock(m_Impl->mutex);
    const auto& items = m_Impl->records->Items();
    return {items.begin(), items.end()};
}

void UdpEchoPeer::ClearReceived() {
    std::lock_guard<std::mutex> lock(m_Impl->mutex);
    m_Impl->records->Clear();
}

bool UdpEchoPeer::WaitForDatagrams(uint64_t n, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(m_Impl->mutex);
    return m_Impl->cond.wait_for(lock, timeout, [&] { return m_Impl->received.load() >= n; });
}

void UdpEchoPeer::SetMute(bool mute) { m_Impl->mute.store(mute); }

}  // namespace testsupport
