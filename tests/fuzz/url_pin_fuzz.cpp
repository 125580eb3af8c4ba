// Arbitrary URLs through the URL splitter and the address-pin builder: no
// crash, and a pin is always "host:port:address" with the URL's own host and a
// numeric port, except for localhost names, which get none.
#include <netdb.h>
#include <sys/socket.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "hostseek/IHostseekInterface.h"
#include "http/HttpHandle.h"

namespace {

// Knows every name: answers at once with one IPv4 address.
class EverythingResolver : public hostseek_interface::IHostseekInterface {
public:
    EverythingResolver() {
        std::memset(&m_Addr, 0, sizeof(m_Addr));
        m_Addr.sin_family = AF_INET;
        m_Addr.sin_addr.s_addr = htonl(0x0a010203);  // 10.1.2.3
        std::memset(&m_Info, 0, sizeof(m_Info));
        m_Info.ai_family = AF_INET;
        m_Info.ai_socktype = SOCK_STREAM;
        m_Info.ai_addrlen = sizeof(m_Addr);
        m_Info.ai_addr = reinterpret_cast<sockaddr*>(&m_Addr);
    }
    int ResolveHost(const char*, const struct addrinfo*, std::shared_ptr<hostseek_interface::IHostseekResultNotic>,
                    void*, struct addrinfo** result) override {
        *result = &m_Info;
        return 0;
    }

private:
    sockaddr_in m_Addr;
    addrinfo m_Info;
};

bool AllDigits(const std::string& s) {
    if (s.empty()) return false;
    for (char c : s)
        if (c < '0' || c > '9') return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    hostseek_interface::IHostseekInterface::GetHostseekInstance(3, std::make_shared<EverythingResolver>());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string url(reinterpret_cast<const char*>(data), size);
    url = url.c_str();  // a C string ends at its first NUL
    std::string host, port;
    bool split = netloop::CHttpHandle::SplitUrlHostPort(url.c_str(), host, port);
    std::string pin = netloop::CHttpHandle::BuildAddressPin(url.c_str());
    // libcurl resolves localhost names itself; they are never pinned.
    std::string lower;
    for (char c : host) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (!lower.empty() && lower.back() == '.') lower.pop_back();
    const bool local = lower == "localhost" ||
                       (lower.size() > 10 && lower.compare(lower.size() - 10, 10, ".localhost") == 0);
    if (!split || port.empty() || local) {
        if (!pin.empty()) std::abort();
        return 0;
    }
    if (pin != host + ":" + port + ":10.1.2.3") std::abort();
    if (!AllDigits(port)) std::abort();
    return 0;
}
