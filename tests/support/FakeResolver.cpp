#include "support/FakeResolver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <condition_variable>
#include <list>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <unordered_map>
#include <utility>

namespace testsupport {

using hostseek_interface::IHostseekInterface;
using hostseek_interface::IHostseekResultNotic;

namespace {

#ifdef EAI_INPROGRESS
constexpr int kInProgress = EAI_INPROGRESS;
#else
constexpr int kInProgress = EAI_AGAIN;
#endif

struct Node {
    struct addrinfo ai;
    struct sockaddr_storage addr;
};

// Built outside the fake's lock, so a bad address throws before anything changes.
std::vector<Node> BuildNodes(const std::vector<std::string>& addresses) {
    std::vector<Node> nodes(addresses.size());  // zeroed
    for (size_t i = 0; i < nodes.size(); ++i) {
        Node& n = nodes[i];
        auto* sin = reinterpret_cast<sockaddr_in*>(&n.addr);
        auto* sin6 = reinterpret_cast<sockaddr_in6*>(&n.addr);
        if (::inet_pton(AF_INET, addresses[i].c_str(), &sin->sin_addr) == 1) {
            sin->sin_family = AF_INET;
            n.ai.ai_family = AF_INET;
            n.ai.ai_addrlen = sizeof(sockaddr_in);
        } else if (::inet_pton(AF_INET6, addresses[i].c_str(), &sin6->sin6_addr) == 1) {
            sin6->sin6_family = AF_INET6;
            n.ai.ai_family = AF_INET6;
            n.ai.ai_addrlen = sizeof(sockaddr_in6);
        } else {
            throw std::invalid_argument("FakeResolver: not a numeric address: '" + addresses[i] + "'");
        }
        n.ai.ai_socktype = SOCK_STREAM;
        n.ai.ai_protocol = IPPROTO_TCP;
        n.ai.ai_addr = reinterpret_cast<struct sockaddr*>(&n.addr);
    }
    return nodes;
}

}  // namespace

FakeResolver::Script FakeResolver::Script::AtOnce(std::vector<std::string> addresses) {
    Script s;
    s.mode = Mode::kAtOnce;
    s.addresses = std::move(addresses);
    return s;
}

FakeResolver::Script FakeResolver::Script::Late(std::vector<std::string> addresses, std::chrono::milliseconds delay) {
    Script s;
    s.mode = Mode::kLate;
    s.addresses = std::move(addresses);
    s.delay = delay;
    return s;
}

FakeResolver::Script FakeResolver::Script::FailLate(int status, std::chrono::milliseconds delay) {
    Script s;
    s.mode = Mode::kFailLate;
    s.status = status;
    s.delay = delay;
    return s;
}

FakeResolver::Script FakeResolver::Script::FailAtOnce(int status) {
    Script s;
    s.mode = Mode::kFailAtOnce;
    s.status = status;
    return s;
}

FakeResolver::Script FakeResolver::Script::Never() {
    Script s;
    s.mode = Mode::kNever;
    return s;
}

// Shared with the delivery threads, so one that finishes after the fake is gone
// (the fake dropped inside a notice) still has what it touches.
struct FakeResolver::State : std::enable_shared_from_this<State> {
    struct Scripted {
        Script script;
        struct addrinfo* chain = nullptr;
    };
    struct Held {
        std::string host;
        std::shared_ptr<IHostseekResultNotic> notic;
        void* userData;
    };
    struct Delivery {
        std::thread thread;
        std::shared_ptr<bool> done;  // under the lock; shared, as a detached thread outlives its slot
    };

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    bool stopping = false;
    std::unordered_map<std::string, Scripted> scripts;
    Scripted fallback;
    std::list<std::vector<Node>> chains;  // every chain ever built, freed with the state
    std::vector<Request> requests;
    std::vector<Held> held;
    std::list<Delivery> deliveries;
    size_t scheduled = 0;
    size_t finished = 0;   // delivered or dropped
    size_t delivered = 0;

    // Under the lock.
    struct addrinfo* Keep(std::vector<Node> nodes) {
        if (nodes.empty()) return nullptr;
        for (size_t i = 0; i + 1 < nodes.size(); ++i) nodes[i].ai.ai_next = &nodes[i + 1].ai;
        chains.push_back(std::move(nodes));  // the moved buffer keeps its address
        return &chains.back().front().ai;
    }

    // Under the lock: answers on a thread of its own after `delay`, unless the
    // fake goes first.
    void Schedule(std::shared_ptr<IHostseekResultNotic> notic, void* userData, int status, struct addrinfo* chain,
                  std::chrono::milliseconds delay) {
        for (auto it = deliveries.begin(); it != deliveries.end();) {
            if (*it->done) {
                it->thread.join();  // past its last use of the state: returns at once
                it = deliveries.erase(it);
            } else {
                ++it;
            }
        }
        ++scheduled;
        auto done = std::make_shared<bool>(false);
        auto due = std::chrono::steady_clock::now() + delay;
        std::thread thread([self = shared_from_this(), notic = std::move(notic), userData, status, chain, due,
                            done]() mutable {
            bool deliver;
            {
                std::unique_lock<std::mutex> lock(self->mutex);
                deliver = !self->changed.wait_until(lock, due, [&] { return self->stopping; });
            }
            if (deliver) {
                try {
                    notic->OnHostseekResult(status, chain, userData);
                } catch (...) {
                }
            }
            notic.reset();
            std::lock_guard<std::mutex> lock(self->mutex);
            ++self->finished;
            if (deliver) ++self->delivered;
            *done = true;
            self->changed.notify_all();
        });
        deliveries.push_back(Delivery{std::move(thread), std::move(done)});
    }

    const Scripted& ScriptFor(const std::string& host) const {
        auto it = scripts.find(host);
        return it != scripts.end() ? it->second : fallback;
    }
};

FakeResolver::FakeResolver() : m_State(std::make_shared<State>()) {}

FakeResolver::~FakeResolver() {
    std::list<State::Delivery> deliveries;
    std::vector<State::Held> held;
    {
        std::lock_guard<std::mutex> lock(m_State->mutex);
        m_State->stopping = true;
        deliveries.swap(m_State->deliveries);
        held.swap(m_State->held);
        m_State->changed.notify_all();
    }
    // Dropped inside one of its own notices: that thread cannot join itself and
    // finishes on its own, holding the state.
    std::thread::id self = std::this_thread::get_id();
    for (State::Delivery& d : deliveries) {
        if (d.thread.get_id() == self)
            d.thread.detach();
        else
            d.thread.join();
    }
}

void FakeResolver::Set(const std::string& host, Script script) {
    std::vector<Node> nodes = BuildNodes(script.addresses);
    std::lock_guard<std::mutex> lock(m_State->mutex);
    State::Scripted& entry = m_State->scripts[host];
    entry.chain = m_State->Keep(std::move(nodes));
    entry.script = std::move(script);
}

void FakeResolver::SetDefault(Script script) {
    std::vector<Node> nodes = BuildNodes(script.addresses);
    std::lock_guard<std::mutex> lock(m_State->mutex);
    m_State->fallback.chain = m_State->Keep(std::move(nodes));
    m_State->fallback.script = std::move(script);
}

int FakeResolver::ResolveHost(const char* host, const struct addrinfo* hints,
                              std::shared_ptr<IHostseekResultNotic> notic, void* userData,
                              struct addrinfo** result) {
    Request request{host != nullptr ? host : "", notic != nullptr, hints != nullptr, 0, 0, 0, 0};
    if (hints != nullptr) {
        request.family = hints->ai_family;
        request.socktype = hints->ai_socktype;
        request.protocol = hints->ai_protocol;
        request.flags = hints->ai_flags;
    }
    std::lock_guard<std::mutex> lock(m_State->mutex);
    m_State->requests.push_back(request);
    m_State->changed.notify_all();
    const State::Scripted& entry = m_State->ScriptFor(request.host);
    const Script& script = entry.script;
    switch (script.mode) {
        case Script::Mode::kAtOnce:
            if (result != nullptr) *result = entry.chain;
            return 0;
        case Script::Mode::kLate:
            if (notic) m_State->Schedule(std::move(notic), userData, 0, entry.chain, script.delay);
            return kInProgress;
        case Script::Mode::kFailLate:
            if (notic) m_State->Schedule(std::move(notic), userData, script.status, nullptr, script.delay);
            return kInProgress;
        case Script::Mode::kFailAtOnce:
            return script.status != 0 ? script.status : EAI_FAIL;
        case Script::Mode::kNever:
            if (notic) m_State->held.push_back(State::Held{request.host, std::move(notic), userData});
            return kInProgress;
    }
    return kInProgress;
}

std::vector<FakeResolver::Request> FakeResolver::Requests() const {
    std::lock_guard<std::mutex> lock(m_State->mutex);
    return m_State->requests;
}

size_t FakeResolver::RequestCount(const std::string& host) const {
    std::lock_guard<std::mutex> lock(m_State->mutex);
    size_t n = 0;
    for (const Request& r : m_State->requests)
        if (r.host == host) ++n;
    return n;
}

size_t FakeResolver::TotalRequests() const {
    std::lock_guard<std::mutex> lock(m_State->mutex);
    return m_State->requests.size();
}

bool FakeResolver::WaitForRequests(size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(m_State->mutex);
    return m_State->changed.wait_for(lock, timeout, [&] { return m_State->requests.size() >= count; });
}

void FakeResolver::ClearRequests() {
    std::lock_guard<std::mutex> lock(m_State->mutex);
    m_State->requests.clear();
}

size_t FakeResolver::Delivered() const {
    std::lock_guard<std::mutex> lock(m_State->mutex);
    return m_State->delivered;
}

bool FakeResolver::WaitIdle(std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(m_State->mutex);
    return m_State->changed.wait_for(lock, timeout, [&] { return m_State->finished == m_State->scheduled; });
}

size_t FakeResolver::HeldCount(const std::string& host) const {
    std::lock_guard<std::mutex> lock(m_State->mutex);
    size_t n = 0;
    for (const State::Held& h : m_State->held)
        if (host.empty() || h.host == host) ++n;
    return n;
}

size_t FakeResolver::ReleaseHeld(const std::string& host, Script answer) {
    if (answer.mode == Script::Mode::kNever) return 0;
    bool success = answer.mode == Script::Mode::kAtOnce || answer.mode == Script::Mode::kLate;
    std::vector<Node> nodes = BuildNodes(success ? answer.addresses : std::vector<std::string>());
    std::lock_guard<std::mutex> lock(m_State->mutex);
    struct addrinfo* chain = m_State->Keep(std::move(nodes));
    int status = success ? 0 : (answer.status != 0 ? answer.status : EAI_FAIL);
    size_t released = 0;
    std::vector<State::Held> keep;
    for (State::Held& h : m_State->held) {
        if (host.empty() || h.host == host) {
            m_State->Schedule(std::move(h.notic), h.userData, status, chain, answer.delay);
            ++released;
        } else {
            keep.push_back(std::move(h));
        }
    }
    m_State->held.swap(keep);
    return released;
}

size_t FakeResolver::DropHeld(const std::string& host) {
    std::vector<State::Held> dropped;
    std::lock_guard<std::mutex> lock(m_State->mutex);
    std::vector<State::Held> keep;
    for (State::Held& h : m_State->held) (host.empty() || h.host == host ? dropped : keep).push_back(std::move(h));
    m_State->held.swap(keep);
    return dropped.size();
}

ScopedResolver::ScopedResolver(std::shared_ptr<IHostseekInterface> resolver)
    : m_Installed(std::move(resolver)), m_Previous(IHostseekInterface::GetHostseekInstance(3, nullptr)) {
    IHostseekInterface::GetHostseekInstance(3, m_Installed);
}

ScopedResolver::~ScopedResolver() { IHostseekInterface::GetHostseekInstance(3, m_Previous); }

}  // namespace testsupport
