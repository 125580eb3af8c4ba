// Pins a transfer's server address when the process resolver already knows it,
// so libcurl does not resolve the name again.
#include <arpa/inet.h>
#include <netdb.h>

#include <cstring>

#include "hostseek/IHostseekInterface.h"
#include "http/HttpHandle.h"

namespace netloop {
namespace {

// Owns one curl_url handle for the length of a split.
struct UrlParser {
    CURLU* url = curl_url();
    ~UrlParser() { curl_url_cleanup(url); }
    bool Get(CURLUPart part, std::string& out) {
        char* text = nullptr;
        if (url == nullptr || curl_url_get(url, part, &text, 0) != CURLUE_OK) return false;
        bool got = text != nullptr;
        if (got) out = text;
        curl_free(text);
        return got;
    }
};

const char* DefaultPortOf(const std::string& scheme) {
    struct SchemePort {
        const char* scheme;
        const char* port;
    };
    static const SchemePort kPorts[] = {{"http", "80"},  {"ws", "80"},  {"https", "443"}, {"wss", "443"},
                                        {"ftp", "21"},   {"ssh", "22"}, {"telnet", "23"}};
    for (const SchemePort& entry : kPorts)
        if (scheme == entry.scheme) return entry.port;
    return "";
}

// "127.0.0.1" or "[::1]", as libcurl's URL parser gives a host.
bool IsNumericHost(const std::string& host) {
    unsigned char addr[sizeof(struct in6_addr)];
    if (inet_pton(AF_INET, host.c_str(), addr) == 1) return true;
    if (host.size() < 2 || host.front() != '[' || host.back() != ']') return false;
    return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), addr) == 1;
}

}  // namespace

bool CHttpHandle::SplitUrlHostPort(const char* url, std::string& host, std::string& port) {
    UrlParser parser;
    if (url == nullptr || parser.url == nullptr || curl_url_set(parser.url, CURLUPART_URL, url, 0) != CURLUE_OK)
        return false;
    if (!parser.Get(CURLUPART_HOST, host)) return false;
    if (parser.Get(CURLUPART_PORT, port)) return true;
    std::string scheme;
    if (!parser.Get(CURLUPART_SCHEME, scheme)) return false;
    port = DefaultPortOf(scheme);
    return true;
}

std::string CHttpHandle::BuildAddressPin(const char* url) {
    std::string host, port;
    if (!SplitUrlHostPort(url, host, port)) return {};
    // libcurl refuses an entry without a port and fails the whole transfer, so
    // a pin that cannot name one is not made.
    if (port.empty()) return {};
    // A numeric address needs no look-up from libcurl, so a pin would only
    // cost the resolver call here and libcurl's parsing of the entry on every
    // transfer.
    if (IsNumericHost(host)) return {};

    struct addrinfo hints;
    std::memset(&hints, 0, sizeof(hints));
    hints.ai_flags = AI_ADDRCONFIG;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    struct addrinfo* result = nullptr;
    auto resolver = hostseek_interface::IHostseekInterface::GetHostseekInstance(3, nullptr);
    // Without a notice this only takes an answer that is at hand now.
    if (resolver->ResolveHost(host.c_str(), &hints, nullptr, nullptr, &result) != 0 || result == nullptr) return {};
    std::string ipv4, ipv6;
    hostseek_interface::IHostseekInterface::Parse(result, ipv4, ipv6);
    if (ipv4.empty() && ipv6.empty()) return {};
    // One allocation for the entry, however long it is.
    const bool v4 = !ipv4.empty();
    const std::string& address = v4 ? ipv4 : ipv6;
    std::string entry;
    entry.reserve(host.size() + port.size() + address.size() + 4);
    entry.append(host).append(1, ':').append(port).append(1, ':');
    if (v4) return entry.append(address);
    return entry.append(1, '[').append(address).append(1, ']');
}

}  // namespace netloop
