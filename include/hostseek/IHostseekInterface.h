// hostseek: an asynchronous name resolver shared by the whole process.
//
// A request is answered at once when the answer is cached; otherwise the look-up
// runs on the resolver's own threads and the caller's notice hears the result
// exactly once, on one of those threads.
#pragma once

#include <memory>
#include <string>

#if defined(_WIN32)
#  include <ws2tcpip.h>
#  if defined(HOSTSEEK_BUILDING)
#    define HOSTSEEK_EXPORT __declspec(dllexport)
#  else
#    define HOSTSEEK_EXPORT __declspec(dllimport)
#  endif
#else
#  include <netdb.h>
#  define HOSTSEEK_EXPORT __attribute__((visibility("default")))
#endif

namespace hostseek_interface {

// Implemented by whoever wants a late answer.
class HOSTSEEK_EXPORT IHostseekResultNotic {
public:
    // `status`: 0 on success, else the getaddrinfo error code. `result`: the answer,
    // null on failure; it belongs to the resolver and stays valid for the whole
    // call, not after it. `userData`: the pointer given to ResolveHost.
    virtual void OnHostseekResult(int status, struct addrinfo* result, void* userData) = 0;
    virtual ~IHostseekResultNotic();
};

class HOSTSEEK_EXPORT IHostseekInterface {
public:
    // Resolves `host` with `hints` (read during the call only).
    //  - Answer at hand: returns 0 and sets *result; `notic` is never called.
    //    The chain belongs to the resolver and stays valid long enough to be
    //    parsed by the caller right away; the default resolver keeps it at least
    //    ten seconds, even when another thread refreshes or evicts the cached
    //    answer meanwhile. Do not keep the pointer: copy what you need.
    //  - Otherwise: returns non-zero and leaves *result alone. If `notic` is not
    //    empty it is called exactly once later, on a resolver thread, on failure
    //    too, with `userData`. Without a notice the request only warms the cache.
    // Never blocks the caller. Safe from any thread.
    virtual int ResolveHost(const char* host, const struct addrinfo* hints,
                            std::shared_ptr<IHostseekResultNotic> notic, void* userData,
                            struct addrinfo** result) = 0;
    virtual ~IHostseekInterface();

    // Empty `replace`: the process's resolver of the given kind (created on first
    // use, never empty). Non-empty: installs `replace` as the resolver and returns
    // it. netloop asks for kind 3; one resolver serves every kind. Thread-safe. A
    // replaced resolver lives on while anyone holds it, so keeping the reference
    // you got lets you put it back later. The default resolver runs getaddrinfo
    // on its own threads and caches positive answers for a minute, failures not
    // at all. The resolver installed when the process exits is never destroyed,
    // so exit handlers and detached threads may still use it.
    static std::shared_ptr<IHostseekInterface> GetHostseekInstance(int kind, std::shared_ptr<IHostseekInterface> replace);

    // True when `host` is a numeric IPv4 address ("127.0.0.1").
    static bool IsIpv4Literal(const char* host);
    // True when `host` is a numeric IPv6 address ("::1"), without brackets.
    static bool IsIpv6Literal(const char* host);
    // Walks `result` and writes the first IPv4 and the first IPv6 address found
    // as text. A family the chain lacks leaves its string unchanged.
    static void Parse(struct addrinfo* result, std::string& ipv4, std::string& ipv6);
};

}  // namespace hostseek_interface
