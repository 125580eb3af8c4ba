// Arbitrary URLs through the URL splitter and the address-pin builder: no
// crash, and a pin is always "host:port:address" with the URL's own host and a
// numeric port; localhost names, which libcurl answers itself, and numeric
// hosts, which it never resolves, get none.
#include <arpa/inet.h>
#include <netdb.h>

#include <cctype>
#include <cstdlib>
#include <string>

#include "hostseek/IHostseekInterface.h"
#include "http/HttpHandle.h"

namespace {

// Knows every name: answers at once with 10.1.2.3.
struct EverythingResolver : hostseek_interface::IHostseekInterface {
    addrinfo* answer = nullptr;
    EverythingResolver() {
        addrinfo hints{};
        hints.ai_flags = AI_NUMERICHOST;
        if (getaddrinfo("10.1.2.3", nullptr, &hints, &answer) != 0) std::abort();
    }
    int ResolveHost(const char*, const addrinfo*, std::shared_ptr<hostseek_interface::IHostseekResultNotic>, void*,
                    addrinfo** result) override {
        *result = answer;
        return 0;
    }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    hostseek_interface::IHostseekInterface::GetHostseekInstance(3, std::make_shared<EverythingResolver>());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string url = std::string(reinterpret_cast<const char*>(data), size).c_str();  // ends at a NUL
    std::string host, port;
    const bool split = netloop::CHttpHandle::SplitUrlHostPort(url.c_str(), host, port);
    const std::string pin = netloop::CHttpHandle::BuildAddressPin(url.c_str());
    std::string name;
    for (char c : host) name += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (!name.empty() && name.back() == '.') name.pop_back();
    const bool local = name == "localhost" || (name.size() > 10 && name.rfind(".localhost") == name.size() - 10);
    unsigned char addr[16];
    const bool numeric = inet_pton(AF_INET, host.c_str(), addr) == 1 ||
                         (host.size() > 2 && host[0] == '[' && inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), addr) == 1);
    if (!split || port.empty() || local || numeric) {
        if (!pin.empty()) std::abort();
        return 0;
    }
    if (pin != host + ":" + port + ":10.1.2.3" || port.find_first_not_of("0123456789") != std::string::npos) std::abort();
    return 0;
}
