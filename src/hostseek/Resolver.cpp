// The default resolver and the process's resolver slot.
#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <list>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "DefaultResolver.h"
#include "hostseek/IHostseekInterface.h"

namespace hostseek_interface {
namespace {

#ifdef EAI_INPROGRESS
constexpr int kInProgress = EAI_INPROGRESS;
#else
constexpr int kInProgress = EAI_AGAIN;
#endif
#ifdef EAI_CANCELED
constexpr int kCanceled = EAI_CANCELED;
#else
constexpr int kCanceled = EAI_SYSTEM;
#endif

using Clock = std::chrono::steady_clock;

// A request's identity: the same name asked with other hints is another answer.
struct LookupKey {
    std::string host;
    bool hasHints = false;
    int family = 0;
    int socktype = 0;
    int protocol = 0;
    int flags = 0;

    LookupKey(const char* name, const struct addrinfo* hints) : host(name) {
        if (hints != nullptr) {
            hasHints = true;
            family = hints->ai_family;
            socktype = hints->ai_socktype;
            protocol = hints->ai_protocol;
            flags = hints->ai_flags;
        }
    }

    struct addrinfo Hints() const {
        struct addrinfo hints {};
        hints.ai_family = family;
        hints.ai_socktype = socktype;
        hints.ai_protocol = protocol;
        hints.ai_flags = flags;
        return hints;
    }

    bool operator==(const LookupKey& o) const {
        return host == o.host && hasHints == o.hasHints && family == o.family && socktype == o.socktype &&
               protocol == o.protocol && flags == o.flags;
    }
};

struct LookupKeyHash {
    size_t operator()(const LookupKey& k) const {
        size_t h = std::hash<std::string>()(k.host);
        for (int v : {k.hasHints ? 1 : 0, k.family, k.socktype, k.protocol, k.flags})
            h = h * 1000003u ^ std::hash<int>()(v);
        return h;
    }
};

// One getaddrinfo answer. Shared between the cache, the retired list and the
// worker delivering it, and freed when the last of them lets go.
struct Chain {
    explicit Chain(struct addrinfo* ai) : head(ai) {}
    ~Chain() { ::freeaddrinfo(head); }
    Chain(const Chain&) = delete;
    Chain& operator=(const Chain&) = delete;
    struct addrinfo* const head;
};
using ChainPtr = std::shared_ptr<const Chain>;

struct Waiter {
    std::shared_ptr<IHostseekResultNotic> notic;
    void* userData;
};

// Everything the workers share. Held by the workers themselves, so a worker that
// outlives its resolver object (see ~CDefaultResolver) still has it.
class CResolverCore {
public:
    explicit CResolverCore(DefaultResolverOptions options) : m_Options(std::move(options)) {
        if (!m_Options.lookup)
            m_Options.lookup = [](const char* host, const struct addrinfo* hints, struct addrinfo** result) {
                return ::getaddrinfo(host, nullptr, hints, result);
            };
    }

    int Resolve(const char* host, const struct addrinfo* hints, std::shared_ptr<IHostseekResultNotic> notic,
                void* userData, struct addrinfo** result) {
        LookupKey key(host != nullptr ? host : "", hints);
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (m_Stopped) return kCanceled;  // unreachable through the resolver object; kept for safety

        auto cached = m_Cache.find(key);
        if (cached != m_Cache.end()) {
            if (Clock::now() < cached->second.expires) {
                if (result != nullptr) *result = cached->second.chain->head;
                return 0;
            }
            Retire(cached);
        }

        auto pending = m_Pending.find(key);
        if (pending == m_Pending.end()) {
            m_Queue.push_back(key);
            pending = m_Pending.emplace(std::move(key), std::vector<Waiter>()).first;
            m_Wake.notify_one();
        }
        if (notic) pending->second.push_back(Waiter{std::move(notic), userData});
        return kInProgress;
    }

    // Workers drain what is queued as cancelled and leave once the queue is empty.
    void Stop() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Stopped = true;
        m_Wake.notify_all();
    }

    void WorkerLoop() {
        for (;;) {
            std::unique_lock<std::mutex> lock(m_Mutex);
            m_Wake.wait(lock, [this] { return m_Stopped || !m_Queue.empty(); });
            if (m_Queue.empty()) return;
            LookupKey key = std::move(m_Queue.front());
            m_Queue.pop_front();
            if (m_Stopped) {
                std::vector<Waiter> waiters = TakeWaiters(key);
                lock.unlock();
                Deliver(waiters, kCanceled, nullptr);
                continue;
            }
            lock.unlock();

            ChainPtr chain;
            int status = Lookup(key, chain);
            std::deque<ChainPtr> expired;

            lock.lock();
            std::vector<Waiter> waiters = TakeWaiters(key);
            if (m_Stopped)
                status = kCanceled;
            else if (chain)
                Insert(std::move(key), chain);
            SweepRetired(expired);
            lock.unlock();

            expired.clear();  // freeaddrinfo outside the lock
            Deliver(waiters, status, status == 0 ? chain->head : nullptr);
        }
    }

private:
    struct Entry {
        ChainPtr chain;
        Clock::time_point expires;
        std::list<const LookupKey*>::iterator age;
    };
    using Cache = std::unordered_map<LookupKey, Entry, LookupKeyHash>;

    int Lookup(const LookupKey& key, ChainPtr& chain) {
        if (key.host.empty()) return EAI_NONAME;  // getaddrinfo would answer for the wildcard address
        struct addrinfo hints = key.Hints();
        struct addrinfo* head = nullptr;
        int status;
        try {
            status = m_Options.lookup(key.host.c_str(), key.hasHints ? &hints : nullptr, &head);
        } catch (...) {
            status = EAI_SYSTEM;
        }
        if (head != nullptr) chain = std::make_shared<const Chain>(head);
        if (status == 0 && head == nullptr) status = EAI_NONAME;
        if (status != 0) chain.reset();
        return status;
    }

    std::vector<Waiter> TakeWaiters(const LookupKey& key) {
        std::vector<Waiter> waiters;
        auto it = m_Pending.find(key);
        if (it != m_Pending.end()) {
            waiters = std::move(it->second);
            m_Pending.erase(it);
        }
        return waiters;
    }

    void Insert(LookupKey key, const ChainPtr& chain) {
        if (m_Options.ttl.count() <= 0 || m_Options.maxEntries == 0) return;
        Clock::time_point now = Clock::now();
        auto old = m_Cache.find(key);
        if (old != m_Cache.end()) Retire(old);
        // Every entry lives equally long, so the oldest is also the first to expire.
        while (!m_Age.empty()) {
            auto oldest = m_Cache.find(*m_Age.front());
            if (m_Cache.size() < m_Options.maxEntries && now < oldest->second.expires) break;
            Retire(oldest);
        }
        auto it = m_Cache.emplace(std::move(key), Entry{chain, now + m_Options.ttl, {}}).first;
        it->second.age = m_Age.insert(m_Age.end(), &it->first);
    }

    // Someone may have been handed this chain a moment ago and still be reading it.
    void Retire(Cache::iterator it) {
        m_Retired.emplace_back(Clock::now() + m_Options.retireGrace, std::move(it->second.chain));
        m_Age.erase(it->second.age);
        m_Cache.erase(it);
    }

    void SweepRetired(std::deque<ChainPtr>& out) {
        Clock::time_point now = Clock::now();
        while (!m_Retired.empty() && m_Retired.front().first <= now) {
            out.push_back(std::move(m_Retired.front().second));
            m_Retired.pop_front();
        }
    }

    static void Deliver(const std::vector<Waiter>& waiters, int status, struct addrinfo* head) {
        for (const Waiter& w : waiters) {
            try {
                w.notic->OnHostseekResult(status, head, w.userData);
            } catch (...) {
                // A throwing notice must not take the worker, and the others' answers, with it.
            }
        }
    }

    DefaultResolverOptions m_Options;
    std::mutex m_Mutex;
    std::condition_variable m_Wake;
    bool m_Stopped = false;
    Cache m_Cache;
    std::list<const LookupKey*> m_Age;  // cache keys, oldest first
    std::unordered_map<LookupKey, std::vector<Waiter>, LookupKeyHash> m_Pending;
    std::deque<LookupKey> m_Queue;  // pending keys whose look-up has not started
    std::deque<std::pair<Clock::time_point, ChainPtr>> m_Retired;  // by deadline, as the grace is fixed
};

class CDefaultResolver : public IHostseekInterface {
public:
    explicit CDefaultResolver(const DefaultResolverOptions& options)
        : m_Core(std::make_shared<CResolverCore>(options)) {
        size_t workers = options.workers > 0 ? options.workers : 1;
        for (size_t i = 0; i < workers; ++i) {
            try {
                m_Workers.emplace_back([core = m_Core] {
                    ::pthread_setname_np(::pthread_self(), "hostseek");
                    core->WorkerLoop();
                });
            } catch (const std::system_error&) {
                if (m_Workers.empty()) throw;
                break;  // fewer workers still serve every request
            }
        }
    }

    ~CDefaultResolver() override {
        m_Core->Stop();
        // The last reference may go inside a notice, on one of our workers: that
        // worker cannot join itself, so it finishes on its own with its share of the core.
        std::thread::id self = std::this_thread::get_id();
        for (std::thread& t : m_Workers) {
            if (t.get_id() == self)
                t.detach();
            else
                t.join();
        }
    }

    int ResolveHost(const char* host, const struct addrinfo* hints, std::shared_ptr<IHostseekResultNotic> notic,
                    void* userData, struct addrinfo** result) override {
        return m_Core->Resolve(host, hints, std::move(notic), userData, result);
    }

private:
    std::shared_ptr<CResolverCore> m_Core;
    std::vector<std::thread> m_Workers;
};

std::mutex g_InstanceMutex;

std::shared_ptr<IHostseekInterface>& InstanceSlot() {
    // Never destroyed: exit handlers and detached threads of other libraries may
    // still resolve after static destructors have run.
    static auto* slot = new std::shared_ptr<IHostseekInterface>();
    return *slot;
}

}  // namespace

std::shared_ptr<IHostseekInterface> CreateDefaultResolver(const DefaultResolverOptions& options) {
    return std::make_shared<CDefaultResolver>(options);
}

std::shared_ptr<IHostseekInterface> IHostseekInterface::GetHostseekInstance(
    int, std::shared_ptr<IHostseekInterface> replace) {
    std::shared_ptr<IHostseekInterface> previous;  // released after the lock: its shutdown joins threads
    std::lock_guard<std::mutex> lock(g_InstanceMutex);
    std::shared_ptr<IHostseekInterface>& slot = InstanceSlot();
    if (replace) {
        previous = std::move(slot);
        slot = std::move(replace);
    } else if (!slot) {
        slot = CreateDefaultResolver();
    }
    return slot;
}

}  // namespace hostseek_interface
