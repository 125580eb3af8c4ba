#include <arpa/inet.h>
#include <netinet/in.h>

#include "hostseek/IHostseekInterface.h"

namespace hostseek_interface {

IHostseekResultNotic::~IHostseekResultNotic() = default;
IHostseekInterface::~IHostseekInterface() = default;

bool IHostseekInterface::IsIpv4Literal(const char* host) {
    struct in_addr addr;
    return host != nullptr && ::inet_pton(AF_INET, host, &addr) == 1;
}

bool IHostseekInterface::IsIpv6Literal(const char* host) {
    struct in6_addr addr;
    return host != nullptr && ::inet_pton(AF_INET6, host, &addr) == 1;
}

void IHostseekInterface::Parse(struct addrinfo* result, std::string& ipv4, std::string& ipv6) {
    bool haveV4 = false;
    bool haveV6 = false;
    for (struct addrinfo* ai = result; ai != nullptr && !(haveV4 && haveV6); ai = ai->ai_next) {
        char text[INET6_ADDRSTRLEN];
        if (ai->ai_addr == nullptr) continue;
        if (!haveV4 && ai->ai_family == AF_INET && ai->ai_addrlen >= sizeof(sockaddr_in)) {
            auto* sin = reinterpret_cast<sockaddr_in*>(ai->ai_addr);
            if (::inet_ntop(AF_INET, &sin->sin_addr, text, sizeof(text)) != nullptr) {
                ipv4 = text;
                haveV4 = true;
            }
        } else if (!haveV6 && ai->ai_family == AF_INET6 && ai->ai_addrlen >= sizeof(sockaddr_in6)) {
            auto* sin6 = reinterpret_cast<sockaddr_in6*>(ai->ai_addr);
            if (::inet_ntop(AF_INET6, &sin6->sin6_addr, text, sizeof(text)) != nullptr) {
                ipv6 = text;
                haveV6 = true;
            }
        }
    }
}

}  // namespace hostseek_interface
