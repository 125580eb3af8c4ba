// A scriptable resolver for tests. Installed as the process's resolver (see
// ScopedResolver), it answers each name the way the test said: at once, late on a
// thread of its own, with a failure, or never. It never touches the network and
// records every request so tests can check what was asked and how.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "hostseek/IHostseekInterface.h"

namespace testsupport {

class FakeResolver : public hostseek_interface::IHostseekInterface {
public:
    // How one name is answered. `addresses` are numeric IPv4/IPv6 addresses,
    // put into the chain in the order given (entries are SOCK_STREAM/IPPROTO_TCP;
    // the request's hints are recorded, not applied).
    struct Script {
        enum class Mode {
            kAtOnce,      // returns 0 and the chain; the notice is never called
            kLate,        // returns non-zero; after `delay` the notice hears status 0 and the chain
            kFailLate,    // returns non-zero; after `delay` the notice hears `status` and a null chain
            kFailAtOnce,  // returns `status`; the notice is never called
            kNever,       // returns non-zero; the notice is held (see ReleaseHeld / DropHeld)
        };
        Mode mode = Mode::kFailLate;
        std::vector<std::string> addresses;
        int status = EAI_NONAME;
        std::chrono::milliseconds delay{0};

        static Script AtOnce(std::vector<std::string> addresses);
        static Script Late(std::vector<std::string> addresses, std::chrono::milliseconds delay = {});
        static Script FailLate(int status = EAI_NONAME, std::chrono::milliseconds delay = {});
        static Script FailAtOnce(int status = EAI_NONAME);
        static Script Never();
    };

    // One call of ResolveHost as the fake saw it.
    struct Request {
        std::string host;  // "" for a null host
        bool withNotice;
        bool hasHints;     // false: null hints; the fields below are then 0
        int family;
        int socktype;
        int protocol;
        int flags;
    };

    // Names without a script fail late with EAI_NONAME until SetDefault says otherwise.
    FakeResolver();
    // Late answers not delivered yet are dropped (their notices are never called)
    // and the fake's threads are joined; chains it handed out are freed.
    ~FakeResolver() override;
    FakeResolver(const FakeResolver&) = delete;
    FakeResolver& operator=(const FakeResolver&) = delete;

    // Scripts `host` for the requests that follow; replaces an earlier script.
    // Throws std::invalid_argument for an address that is not numeric.
    void Set(const std::string& host, Script script);
    void SetDefault(Script script);

    int ResolveHost(const char* host, const struct addrinfo* hints,
                    std::shared_ptr<hostseek_interface::IHostseekResultNotic> notic, void* userData,
                    struct addrinfo** result) override;

    std::vector<Request> Requests() const;
    // Requests for `host`.
    size_t RequestCount(const std::string& host) const;
    size_t TotalRequests() const;
    // Waits until at least `count` requests in total have been made.
    bool WaitForRequests(size_t count, std::chrono::milliseconds timeout) const;
    void ClearRequests();

    // Late notices called so far (each counted once its call has returned).
    size_t Delivered() const;
    // Waits until every late answer scheduled so far has been delivered.
    bool WaitIdle(std::chrono::milliseconds timeout) const;

    // Requests held by kNever scripts; "" counts every host.
    size_t HeldCount(const std::string& host = "") const;
    // Answers the held requests for `host` ("" for every host) as late answers
    // following `answer` (kAtOnce and kLate deliver its addresses, kFailLate and
    // kFailAtOnce its status; kNever keeps them held). Returns how many were released.
    size_t ReleaseHeld(const std::string& host, Script answer);
    // Forgets held requests without calling their notices; returns how many.
    size_t DropHeld(const std::string& host = "");

private:
    struct State;
    std::shared_ptr<State> m_State;
};

// Installs `resolver` as the process's resolver (every kind) for its lifetime and
// puts the previous one back afterwards.
class ScopedResolver {
public:
    explicit ScopedResolver(std::shared_ptr<hostseek_interface::IHostseekInterface> resolver);
    ~ScopedResolver();
    ScopedResolver(const ScopedResolver&) = delete;
    ScopedResolver& operator=(const ScopedResolver&) = delete;

    const std::shared_ptr<hostseek_interface::IHostseekInterface>& Installed() const { return m_Installed; }
    const std::shared_ptr<hostseek_interface::IHostseekInterface>& Previous() const { return m_Previous; }

private:
    std::shared_ptr<hostseek_interface::IHostseekInterface> m_Installed;
    std::shared_ptr<hostseek_interface::IHostseekInterface> m_Previous;
};

}  // namespace testsupport
