// The resolver hostseek installs when nobody installed another one: getaddrinfo
// on a few worker threads, behind a small cache of positive answers.
//
// Lifetime of a chain handed out:
//  - a late answer: valid for the whole notice call (the delivering worker keeps
//    it alive until every notice of that look-up has returned);
//  - an answer at once: valid at least `retireGrace` after the call returned,
//    even if another thread refreshes or evicts the cache entry meanwhile. A
//    chain that leaves the cache is retired, not freed, and freed by a later
//    sweep once the grace period is over; chains still cached or retired are
//    freed when the resolver goes.
//
// Shutdown: when the last reference to a resolver goes, its workers stop. Look-ups
// not started yet and look-ups still running are reported to their notices as
// EAI_CANCELED, exactly once, on a worker thread; the destructor waits for
// look-ups in flight to return (getaddrinfo cannot be interrupted) and for every
// notice to have been called. A resolver dropped from within one of its own
// notices leaves that worker to finish on its own.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

#include "hostseek/IHostseekInterface.h"

namespace hostseek_interface {

// Does one blocking look-up. Same contract as getaddrinfo with a null service;
// a chain it returns is released with freeaddrinfo, so it must come from
// getaddrinfo. `hints` is null when the caller gave none.
using LookupFunction = std::function<int(const char* host, const struct addrinfo* hints, struct addrinfo** result)>;

struct DefaultResolverOptions {
    // Threads doing look-ups; several, so a slow name does not hold up others.
    size_t workers = 4;
    // How long a positive answer is served from the cache. Zero: no caching.
    std::chrono::milliseconds ttl{60000};
    // Most answers kept; the oldest goes first. Zero: no caching.
    size_t maxEntries = 1024;
    // How long a chain outlives its cache entry (see above).
    std::chrono::milliseconds retireGrace{10000};
    // Empty: ::getaddrinfo. Tests put a counting or slow one here.
    LookupFunction lookup;
};

// A fresh resolver with its own cache and workers, independent of the process's
// instance. Throws std::system_error when not a single worker can be started.
HOSTSEEK_EXPORT std::shared_ptr<IHostseekInterface> CreateDefaultResolver(const DefaultResolverOptions& options = {});

}  // namespace hostseek_interface
