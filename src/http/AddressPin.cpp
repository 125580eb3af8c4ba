// Pins a transfer's server address when the process resolver already knows it,
// so libcurl does not resolve the name again.
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <strings.h>

#include <cctype>
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

// "localhost", "localhost." and names under ".localhost", in any case.
bool IsLocalhostName(std::string host) {
    for (char& c : host) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (!host.empty() && host.back() == '.') host.pop_back();
    static const char kName[] = "localhost";
    const size_t n = sizeof(kName) - 1;
    if (host == kName) return true;
    return host.size() > n + 1 && host.compare(host.size() - n - 1, n + 1, ".localhost") == 0;
}

// Appends `text` to the comma-separated `list` unless it is there already.
void AddOnce(std::string& list, const std::string& text) {
    size_t at = 0;
    while ((at = list.find(text, at)) != std::string::npos) {
        const size_t end = at + text.size();
        if ((at == 0 || list[at - 1] == ',') && (end == list.size() || list[end] == ',')) return;
        at = end;
    }
    if (!list.empty()) list.append(1, ',');
    list.append(text);
}

// The addresses of `chain` as libcurl's resolve entry writes them: IPv4 as
// they are, IPv6 in brackets, each once, in the resolver's order.
void CollectAddresses(const struct addrinfo* chain, std::string& v4, std::string& v6) {
    char text[INET6_ADDRSTRLEN];
    for (const struct addrinfo* ai = chain; ai != nullptr; ai = ai->ai_next) {
        if (ai->ai_addr == nullptr) continue;
        if (ai->ai_family == AF_INET) {
            const auto* sin = reinterpret_cast<const sockaddr_in*>(ai->ai_addr);
            if (inet_ntop(AF_INET, &sin->sin_addr, text, sizeof(text)) != nullptr) AddOnce(v4, text);
        } else if (ai->ai_family == AF_INET6) {
            const auto* sin6 = reinterpret_cast<const sockaddr_in6*>(ai->ai_addr);
            if (inet_ntop(AF_INET6, &sin6->sin6_addr, text, sizeof(text)) != nullptr)
                AddOnce(v6, std::string("[") + text + "]");
        }
    }
}

// The addresses of `chain` that CollectAddresses reads, raw and in order, into
// `out`: equal raw lists give equal texts.
void RawAddresses(const struct addrinfo* chain, std::string& out) {
    out.clear();
    for (const struct addrinfo* ai = chain; ai != nullptr; ai = ai->ai_next) {
        if (ai->ai_addr == nullptr) continue;
        if (ai->ai_family == AF_INET) {
            const auto* sin = reinterpret_cast<const sockaddr_in*>(ai->ai_addr);
            out.append(1, '4').append(reinterpret_cast<const char*>(&sin->sin_addr), sizeof(sin->sin_addr));
        } else if (ai->ai_family == AF_INET6) {
            const auto* sin6 = reinterpret_cast<const sockaddr_in6*>(ai->ai_addr);
            out.append(1, '6').append(reinterpret_cast<const char*>(&sin6->sin6_addr), sizeof(sin6->sin6_addr));
        }
    }
}

// The entry last made on this thread and what it was made from: handles armed
// for one server get the same entry, and its text is made again only when the
// resolver's addresses for it change.
struct EntryMemo {
    std::string host, port;
    std::string raw;      // RawAddresses of the chain the entry was made from
    std::string scratch;  // the chain at hand, compared with `raw`
    std::string entry;
};

// "host:port:v4,...,[v6],...", IPv4 first: libcurl tries the addresses the
// way it tries a resolved name, so a server that answers on one family only
// is still reached. A pin must never make a transfer fail that would succeed
// without it. Empty when the chain holds no address.
std::string MakeEntry(const std::string& host, const std::string& port, const struct addrinfo* chain) {
    std::string v4, v6;
    CollectAddresses(chain, v4, v6);
    if (v4.empty() && v6.empty()) return {};
    std::string entry;
    entry.reserve(host.size() + port.size() + v4.size() + v6.size() + 3);
    entry.append(host).append(1, ':').append(port).append(1, ':').append(v4);
    if (!v4.empty() && !v6.empty()) entry.append(1, ',');
    return entry.append(v6);
}

// "127.0.0.1" or "[::1]", as libcurl's URL parser gives a host.
bool IsNumericHost(const std::string& host) {
    unsigned char addr[sizeof(struct in6_addr)];
    if (inet_pton(AF_INET, host.c_str(), addr) == 1) return true;
    if (host.size() < 2 || host.front() != '[' || host.back() != ']') return false;
    return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), addr) == 1;
}

// Where a URL's authority ends, as libcurl's parser finds it: the text up to
// there ("https://user@host:port") decides host and port, and the rest only
// whether libcurl takes the URL at all. 0 for URLs this is not sure of: other
// schemes than HTTP and WebSocket, and slashes other than two.
// libcurl's CURL_MAX_INPUT_LENGTH: its parser takes no longer URL.
constexpr size_t kMaxUrlLength = 8000000;

size_t OriginLength(const char* url) {
    static const char* const kSchemes[] = {"http://", "https://", "ws://", "wss://"};
    for (const char* scheme : kSchemes) {
        const size_t n = std::strlen(scheme);
        if (strncasecmp(url, scheme, n) != 0 || url[n] == '/') continue;
        const size_t authority = std::strcspn(url + n, "/?#");
        return authority != 0 ? n + authority : 0;
    }
    return 0;
}

// What libcurl's parser refuses anywhere in a URL: control bytes, DEL,
// spaces, and more than `room` bytes (what its input limit leaves).
bool CleanForParser(const char* text, size_t room) {
    for (size_t n = 0; text[n] != '\0'; ++n) {
        const unsigned char c = static_cast<unsigned char>(text[n]);
        if (c <= 0x20 || c == 0x7f || n >= room) return false;
    }
    return true;
}

// The split of the last URL that went through the pin on this thread: an
// application arms its handles for few servers, and libcurl's URL parser is
// the dearest step of arming one.
struct OriginMemo {
    std::string origin;  // the URL up to the end of its authority; empty: nothing kept
    std::string host, port;
    bool pinnable = false;  // a name that needs a look-up, with a port
};

const OriginMemo& SplitOnce(const char* url) {
    static thread_local OriginMemo memo;
    const size_t length = OriginLength(url);
    if (length != 0 && memo.origin.size() == length && memo.origin.compare(0, length, url, length) == 0 &&
        CleanForParser(url + length, kMaxUrlLength - length))
        return memo;
    memo.origin.clear();
    memo.pinnable = false;
    if (!CHttpHandle::SplitUrlHostPort(url, memo.host, memo.port)) return memo;
    // libcurl refuses an entry without a port and fails the whole transfer,
    // so a pin that cannot name one is not made. libcurl answers localhost
    // names itself, with both loopback addresses and without asking the
    // system: a pin could only take one of them away. A numeric address needs
    // no look-up from libcurl, so a pin would only cost the resolver call
    // here and libcurl's parsing of the entry on every transfer.
    memo.pinnable = !memo.port.empty() && !IsLocalhostName(memo.host) && !IsNumericHost(memo.host);
    memo.origin.assign(url, length);
    return memo;
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
    if (url == nullptr) return {};
    const OriginMemo& split = SplitOnce(url);
    if (!split.pinnable) return {};
    const std::string& host = split.host;
    const std::string& port = split.port;

    struct addrinfo hints;
    std::memset(&hints, 0, sizeof(hints));
    hints.ai_flags = AI_ADDRCONFIG;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    struct addrinfo* result = nullptr;
    auto resolver = hostseek_interface::IHostseekInterface::GetHostseekInstance(3, nullptr);
    // Without a notice this only takes an answer that is at hand now.
    if (resolver->ResolveHost(host.c_str(), &hints, nullptr, nullptr, &result) != 0 || result == nullptr) return {};
    static thread_local EntryMemo memo;
    RawAddresses(result, memo.scratch);
    if (memo.scratch != memo.raw || memo.host != host || memo.port != port) {
        memo.entry = MakeEntry(host, port, result);
        memo.raw.swap(memo.scratch);
        memo.host = host;
        memo.port = port;
    }
    return memo.entry;
}

}  // namespace netloop
