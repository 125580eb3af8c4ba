#include "common/SinkServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace bench {
namespace {

bool SendAll(int fd, const std::string& text) {
    size_t off = 0;
    while (off < text.size()) {
        ssize_t n = ::send(fd, text.data() + off, text.size() - off, MSG_NOSIGNAL);
        if (n <= 0) return false;
        off += static_cast<size_t>(n);
    }
    return true;
}

// Value of header `name` in a header block, "" when absent.
std::string HeaderValue(const std::string& head, const char* name) {
    const size_t len = std::strlen(name);
    for (size_t pos = head.find("\r\n"); pos != std::string::npos; pos = head.find("\r\n", pos + 2)) {
        const size_t start = pos + 2;
        if (head.size() - start > len && strncasecmp(head.c_str() + start, name, len) == 0 &&
            head[start + len] == ':') {
            size_t v = start + len + 1;
            while (v < head.size() && head[v] == ' ') ++v;
            size_t end = head.find("\r\n", v);
            return head.substr(v, end == std::string::npos ? std::string::npos : end - v);
        }
    }
    return "";
}

}  // namespace

SinkServer::SinkServer() {
    m_Listen = ::socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    ::setsockopt(m_Listen, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(m_Listen, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || ::listen(m_Listen, 64) != 0) {
        ::close(m_Listen);
        throw std::runtime_error("sink server: cannot listen");
    }
    socklen_t alen = sizeof(addr);
    ::getsockname(m_Listen, reinterpret_cast<sockaddr*>(&addr), &alen);
    m_Port = ntohs(addr.sin_port);
    m_Acceptor = std::thread([this] { AcceptLoop(); });
}

SinkServer::~SinkServer() {
    m_Stop = true;
    ::shutdown(m_Listen, SHUT_RDWR);
    m_Acceptor.join();
    ::close(m_Listen);
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        for (int fd : m_Fds) ::shutdown(fd, SHUT_RDWR);
    }
    for (auto& t : m_Workers) t.join();
    for (int fd : m_Fds) ::close(fd);
}

std::string SinkServer::Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(m_Port) + path;
}

void SinkServer::AcceptLoop() {
    while (!m_Stop) {
        int fd = ::accept(m_Listen, nullptr, nullptr);
        if (fd < 0) {
            if (m_Stop) return;
            continue;
        }
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Fds.push_back(fd);
        m_Workers.emplace_back([this, fd] { Serve(fd); });
    }
}

void SinkServer::Serve(int fd) {
    std::vector<char> buf(1 << 20);
    std::string pending;  // bytes read past the previous request
    while (!m_Stop) {
        // Headers.
        std::string head = std::move(pending);
        pending.clear();
        size_t end;
        while ((end = head.find("\r\n\r\n")) == std::string::npos) {
            ssize_t n = ::recv(fd, buf.data(), buf.size(), 0);
            if (n <= 0) return;
            head.append(buf.data(), static_cast<size_t>(n));
        }
        std::string rest = head.substr(end + 4);
        head.resize(end + 2);
        const uint64_t length = std::strtoull(HeaderValue(head, "Content-Length").c_str(), nullptr, 10);
        if (strcasecmp(HeaderValue(head, "Expect").c_str(), "100-continue") == 0 &&
            !SendAll(fd, "HTTP/1.1 100 Continue\r\n\r\n"))
            return;
        // Body.
        uint64_t got = std::min<uint64_t>(rest.size(), length);
        if (rest.size() > length) pending = rest.substr(length);
        while (got < length) {
            ssize_t n = ::recv(fd, buf.data(), static_cast<size_t>(std::min<uint64_t>(buf.size(), length - got)), 0);
            if (n <= 0) return;
            got += static_cast<uint64_t>(n);
        }
        m_BodyBytes.fetch_add(got);
        const std::string body = "size=" + std::to_string(got);
        if (!SendAll(fd, "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " +
                             std::to_string(body.size()) + "\r\n\r\n" + body))
            return;
    }
}

}  // namespace bench
