#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "hostseek/DefaultResolver.h"
#include "hostseek/IHostseekInterface.h"
#include "support/FakeResolver.h"

namespace {

using namespace std::chrono_literals;
using hostseek_interface::CreateDefaultResolver;
using hostseek_interface::DefaultResolverOptions;
using hostseek_interface::IHostseekInterface;
using hostseek_interface::IHostseekResultNotic;
using testsupport::FakeResolver;
using testsupport::ScopedResolver;
using Clock = std::chrono::steady_clock;

constexpr auto kWait = 5s;  // bound of every wait; answers here come in milliseconds

struct Answer {
    int status;
    bool hadChain;
    std::string v4, v6;
    void* userData;
    std::thread::id thread;
};

// Parses the chain during the call, so a chain freed too early shows under ASan.
class RecordingNotice : public IHostseekResultNotic {
public:
    void OnHostseekResult(int status, struct addrinfo* result, void* userData) override {
        Answer a{status, result != nullptr, "", "", userData, std::this_thread::get_id()};
        IHostseekInterface::Parse(result, a.v4, a.v6);
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Answers.push_back(a);
        m_Cond.notify_all();
    }
    bool WaitFor(size_t count) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Cond.wait_for(lock, kWait, [&] { return m_Answers.size() >= count; });
    }
    std::vector<Answer> Answers() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Answers;
    }
    std::map<void*, int> CallsPerUserData() {
        std::map<void*, int> calls;
        for (const Answer& a : Answers()) ++calls[a.userData];
        return calls;
    }

private:
    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    std::vector<Answer> m_Answers;
};

// Counts look-ups and holds those of one name until opened (at most kWait).
class LookupProbe {
public:
    explicit LookupProbe(std::string gated = "") : m_Gated(std::move(gated)) {}
    DefaultResolverOptions Options(size_t workers = 4) {
        DefaultResolverOptions o;
        o.workers = workers;
        o.lookup = [this](const char* host, const struct addrinfo* hints, struct addrinfo** result) {
            ++calls;
            if (m_Gated == host) {
                std::unique_lock<std::mutex> lock(m_Mutex);
                m_GatedInFlight = true;
                m_Cond.notify_all();
                m_Cond.wait_for(lock, kWait, [&] { return m_Open; });
            }
            return ::getaddrinfo(host, nullptr, hints, result);
        };
        return o;
    }
    bool WaitGatedInFlight() {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Cond.wait_for(lock, kWait, [&] { return m_GatedInFlight; });
    }
    void Open() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Open = true;
        m_Cond.notify_all();
    }
    std::atomic<int> calls{0};

private:
    std::string m_Gated;
    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    bool m_GatedInFlight = false;
    bool m_Open = false;
};

struct addrinfo Hints(int family, int flags = AI_ADDRCONFIG) {
    struct addrinfo h {};
    h.ai_family = family;
    h.ai_socktype = SOCK_STREAM;
    h.ai_flags = flags;
    return h;
}

TEST(HostseekLiterals, RecognisesNumericAddressesOnly) {
    struct Case {
        const char* host;
        bool v4, v6;
    } cases[] = {
        {"127.0.0.1", true, false},  {"255.255.255.255", true, false}, {"256.1.1.1", false, false},
        {"1.2.3", false, false},     {"::1", false, true},             {"::ffff:10.0.0.1", false, true},
        {"[::1]", false, false},     {"fe80::1%lo", false, false},     {"localhost", false, false},
        {"", false, false},          {nullptr, false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.host ? c.host : "(null)");
        EXPECT_EQ(IHostseekInterface::IsIpv4Literal(c.host), c.v4);
        EXPECT_EQ(IHostseekInterface::IsIpv6Literal(c.host), c.v6);
    }
}

TEST(HostseekParse, TakesFirstAddressOfEachFamilyAndLeavesMissingOnesAlone) {
    struct Case {
        const char* name;
        std::vector<std::string> chain;
        const char* v4;
        const char* v6;
    } cases[] = {
        {"v6 first", {"2001:db8::1", "10.0.0.1", "2001:db8::2", "10.0.0.2"}, "10.0.0.1", "2001:db8::1"},
        {"v4 only", {"10.0.0.3", "10.0.0.4"}, "10.0.0.3", "old6"},
        {"v6 only", {"::1"}, "old4", "::1"},
        {"empty", {}, "old4", "old6"},
    };
    FakeResolver fake;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        fake.Set(c.name, FakeResolver::Script::AtOnce(c.chain));
        struct addrinfo* chain = nullptr;
        ASSERT_EQ(fake.ResolveHost(c.name, nullptr, nullptr, nullptr, &chain), 0);
        std::string v4 = "old4", v6 = "old6";
        IHostseekInterface::Parse(chain, v4, v6);
        EXPECT_EQ(v4, c.v4);
        EXPECT_EQ(v6, c.v6);
    }
}

TEST(DefaultResolver, AnswersLateOnceThenFromCacheAndNeverCachesFailures) {
    struct Case {
        const char* host;
        struct addrinfo hints;
        const char* v4;  // both empty: the look-up fails
        const char* v6;
        int lookups;     // after two requests
    } cases[] = {
        {"localhost", Hints(AF_INET), "127.0.0.1", "", 1},
        {"127.0.0.1", Hints(AF_UNSPEC), "127.0.0.1", "", 1},
        {"::1", Hints(AF_INET6, 0), "", "::1", 1},
        // .invalid never resolves and fails without asking any server.
        {"no-such-host.invalid", Hints(AF_UNSPEC), "", "", 2},
        {"", Hints(AF_UNSPEC), "", "", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.host);
        const bool ok = *c.v4 || *c.v6;
        LookupProbe probe;
        auto resolver = CreateDefaultResolver(probe.Options());
        auto first = std::make_shared<RecordingNotice>();
        auto second = std::make_shared<RecordingNotice>();
        int tag = 1;
        struct addrinfo* const untouched = reinterpret_cast<struct addrinfo*>(0x1);
        struct addrinfo* result = untouched;
        EXPECT_NE(resolver->ResolveHost(c.host, &c.hints, first, &tag, &result), 0);
        EXPECT_EQ(result, untouched);
        ASSERT_TRUE(first->WaitFor(1));
        Answer a = first->Answers().at(0);
        EXPECT_EQ(a.userData, &tag);
        EXPECT_NE(a.thread, std::this_thread::get_id());
        EXPECT_EQ(a.status == 0, ok) << gai_strerror(a.status);
        EXPECT_EQ(a.hadChain, ok);
        EXPECT_EQ(a.v4, c.v4);
        EXPECT_EQ(a.v6, c.v6);

        int rc = resolver->ResolveHost(c.host, &c.hints, second, &tag, &result);
        EXPECT_EQ(rc == 0, ok);
        if (ok) {
            std::string v4, v6;
            IHostseekInterface::Parse(result, v4, v6);
            EXPECT_EQ(v4, c.v4);
            EXPECT_EQ(v6, c.v6);
        } else {
            ASSERT_TRUE(second->WaitFor(1));
            EXPECT_NE(second->Answers().at(0).status, 0);
        }
        std::this_thread::sleep_for(50ms);  // room for a wrong extra call
        EXPECT_EQ(first->Answers().size(), 1u);
        EXPECT_EQ(second->Answers().size(), ok ? 0u : 1u);
        EXPECT_EQ(probe.calls, c.lookups);
    }
}

TEST(DefaultResolver, ConcurrentRequestsShareOneLookupWhichHoldsUpNoOtherName) {
    LookupProbe probe("localhost");
    auto resolver = CreateDefaultResolver(probe.Options(2));
    auto notice = std::make_shared<RecordingNotice>();
    const struct addrinfo hints = Hints(AF_UNSPEC);
    std::vector<int> tags(100);
    std::vector<std::thread> callers;
    for (int t = 0; t < 4; ++t)
        callers.emplace_back([&, t] {
            for (int i = t; i < 100; i += 4) {
                struct addrinfo* result = nullptr;
                EXPECT_NE(resolver->ResolveHost("localhost", &hints, notice, &tags[i], &result), 0);
            }
        });
    for (auto& c : callers) c.join();
    ASSERT_TRUE(probe.WaitGatedInFlight());
    EXPECT_NE(resolver->ResolveHost("localhost", &hints, nullptr, nullptr, nullptr), 0);  // warm only

    // While localhost is stuck, another name is answered.
    auto other = std::make_shared<RecordingNotice>();
    EXPECT_NE(resolver->ResolveHost("127.0.0.1", &hints, other, nullptr, nullptr), 0);
    ASSERT_TRUE(other->WaitFor(1));
    EXPECT_EQ(other->Answers().at(0).v4, "127.0.0.1");
    EXPECT_TRUE(notice->Answers().empty());
    probe.Open();

    ASSERT_TRUE(notice->WaitFor(100));
    auto calls = notice->CallsPerUserData();
    ASSERT_EQ(calls.size(), 100u);
    for (int& tag : tags) EXPECT_EQ(calls[&tag], 1);
    for (const Answer& a : notice->Answers()) EXPECT_EQ(a.v4, "127.0.0.1");
    EXPECT_EQ(probe.calls, 2);

    // Other hints are another answer; the same hints are at hand.
    struct addrinfo* result = nullptr;
    EXPECT_EQ(resolver->ResolveHost("localhost", &hints, nullptr, nullptr, &result), 0);
    const struct addrinfo v4only = Hints(AF_INET);
    EXPECT_NE(resolver->ResolveHost("localhost", &v4only, notice, nullptr, &result), 0);
    ASSERT_TRUE(notice->WaitFor(101));
    EXPECT_EQ(probe.calls, 3);
}

TEST(DefaultResolver, CacheIsBoundedInTimeAndSizeAndKeepsChainsHandedOut) {
    LookupProbe probe;
    DefaultResolverOptions options = probe.Options(1);
    options.ttl = 800ms;
    options.maxEntries = 2;
    options.retireGrace = 30s;
    auto resolver = CreateDefaultResolver(options);
    const struct addrinfo hints = Hints(AF_INET);
    auto resolveLate = [&](const char* host) {
        auto notice = std::make_shared<RecordingNotice>();
        struct addrinfo* result = nullptr;
        EXPECT_NE(resolver->ResolveHost(host, &hints, notice, nullptr, &result), 0) << host;
        EXPECT_TRUE(notice->WaitFor(1)) << host;
    };
    auto atOnce = [&](const char* host) {
        struct addrinfo* result = nullptr;
        return resolver->ResolveHost(host, &hints, nullptr, nullptr, &result) == 0 ? result : nullptr;
    };
    resolveLate("127.0.0.1");
    resolveLate("127.0.0.2");
    struct addrinfo* first = atOnce("127.0.0.1");
    ASSERT_NE(first, nullptr);
    resolveLate("127.0.0.3");  // the third entry pushes out the oldest
    EXPECT_NE(atOnce("127.0.0.2"), nullptr);
    EXPECT_NE(atOnce("127.0.0.3"), nullptr);
    resolveLate("127.0.0.1");  // gone; its new entry pushes out 127.0.0.2
    std::string v4, v6;
    IHostseekInterface::Parse(first, v4, v6);  // evicted, yet still readable
    EXPECT_EQ(v4, "127.0.0.1");
    EXPECT_EQ(probe.calls, 4);

    std::this_thread::sleep_for(options.ttl + 100ms);
    resolveLate("127.0.0.3");  // expired
    EXPECT_EQ(probe.calls, 5);
}

// Holds the only reference to its resolver and lets it go while being called.
class DroppingNotice : public RecordingNotice {
public:
    std::shared_ptr<IHostseekInterface> resolver;
    void OnHostseekResult(int status, struct addrinfo* result, void* userData) override {
        resolver.reset();
        RecordingNotice::OnHostseekResult(status, result, userData);
    }
};

TEST(DefaultResolver, DestructionWithLookupsInFlightCallsEachNoticeOnce) {
    struct Case {
        size_t workers;
        bool droppedInsideNotice;
    } cases[] = {{1, false}, {4, false}, {2, true}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.workers) + (c.droppedInsideNotice ? " inside" : " outside"));
        LookupProbe probe("gated.invalid");
        auto resolver = CreateDefaultResolver(probe.Options(c.workers));
        auto notice = std::make_shared<RecordingNotice>();
        auto dropping = std::make_shared<DroppingNotice>();
        std::vector<int> tags(30);
        struct addrinfo* result = nullptr;
        resolver->ResolveHost("gated.invalid", nullptr, c.droppedInsideNotice ? dropping : notice, &tags[0], &result);
        ASSERT_TRUE(probe.WaitGatedInFlight());
        std::vector<int> expected(tags.size(), 1);  // notices per tag
        for (size_t i = 1; i < tags.size(); ++i) {
            std::string host = "127.0.0." + std::to_string(i % 10 + 1);  // duplicates join a look-up
            if (resolver->ResolveHost(host.c_str(), nullptr, notice, &tags[i], &result) == 0) expected[i] = 0;
        }
        size_t toNotice = std::count(expected.begin(), expected.end(), 1);
        if (c.droppedInsideNotice) {
            dropping->resolver = std::move(resolver);
            probe.Open();
            ASSERT_TRUE(dropping->WaitFor(1));
            toNotice -= 1;
        } else {
            std::thread opener([&] {
                std::this_thread::sleep_for(50ms);
                probe.Open();
            });
            resolver.reset();  // waits for the gated look-up
            opener.join();
        }
        ASSERT_TRUE(notice->WaitFor(toNotice));
        std::this_thread::sleep_for(20ms);
        auto calls = notice->CallsPerUserData();
        for (const auto& [tag, n] : dropping->CallsPerUserData()) calls[tag] += n;
        ASSERT_EQ(calls.size(), toNotice + (c.droppedInsideNotice ? 1 : 0));
        for (size_t i = 0; i < tags.size(); ++i) EXPECT_EQ(calls[&tags[i]], expected[i]) << i;
        for (const Answer& a : notice->Answers())
            EXPECT_TRUE(a.status == 0 || a.status == EAI_CANCELED) << gai_strerror(a.status);
    }
}

TEST(HostseekInstance, InstallsAndRestoresTheProcessResolver) {
    auto original = IHostseekInterface::GetHostseekInstance(3, nullptr);
    ASSERT_NE(original, nullptr);
    EXPECT_EQ(IHostseekInterface::GetHostseekInstance(3, nullptr), original);
    EXPECT_EQ(IHostseekInterface::GetHostseekInstance(0, nullptr), original);

    auto fake = std::make_shared<FakeResolver>();
    {
        ScopedResolver scope(fake);
        EXPECT_EQ(IHostseekInterface::GetHostseekInstance(3, nullptr), fake);
        EXPECT_EQ(IHostseekInterface::GetHostseekInstance(1, nullptr), fake);
        struct addrinfo* result = nullptr;
        IHostseekInterface::GetHostseekInstance(3, nullptr)->ResolveHost("via.slot", nullptr, nullptr, nullptr, &result);
        EXPECT_EQ(fake->RequestCount("via.slot"), 1u);
    }
    EXPECT_EQ(IHostseekInterface::GetHostseekInstance(3, nullptr), original);

    // The process's own resolver is a real one.
    auto notice = std::make_shared<RecordingNotice>();
    struct addrinfo* result = nullptr;
    if (original->ResolveHost("localhost", nullptr, notice, nullptr, &result) != 0) {
        ASSERT_TRUE(notice->WaitFor(1));
        EXPECT_EQ(notice->Answers().at(0).v4, "127.0.0.1");
    }
}

TEST(FakeResolver, AnswersAsScriptedRecordsRequestsAndDropsWhatIsLeftAtDestruction) {
    using Script = FakeResolver::Script;
    struct Case {
        const char* host;
        Script script;
        bool atOnce;
        int notices;
        int status;
        const char* v4;
    } cases[] = {
        {"at-once", Script::AtOnce({"::1", "10.0.0.1"}), true, 0, 0, "10.0.0.1"},
        {"late", Script::Late({"10.0.0.2"}, 50ms), false, 1, 0, "10.0.0.2"},
        {"fail-late", Script::FailLate(EAI_AGAIN), false, 1, EAI_AGAIN, ""},
        {"fail-at-once", Script::FailAtOnce(), false, 0, 0, ""},
        {"never", Script::Never(), false, 0, 0, ""},
        {"unscripted", Script::FailLate(EAI_NONAME), false, 1, EAI_NONAME, ""},  // not Set: the default
    };
    auto fake = std::make_unique<FakeResolver>();
    const struct addrinfo hints = Hints(AF_UNSPEC);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.host);
        if (std::string(c.host) != "unscripted") fake->Set(c.host, c.script);
        auto notice = std::make_shared<RecordingNotice>();
        struct addrinfo* result = nullptr;
        auto start = Clock::now();
        EXPECT_EQ(fake->ResolveHost(c.host, &hints, notice, nullptr, &result) == 0, c.atOnce);
        ASSERT_TRUE(fake->WaitIdle(kWait));
        ASSERT_EQ(notice->Answers().size(), static_cast<size_t>(c.notices));
        if (c.atOnce) {
            ASSERT_NE(result, nullptr);
            EXPECT_EQ(result->ai_family, AF_INET6);  // order as scripted
            EXPECT_EQ(result->ai_next->ai_family, AF_INET);
        }
        if (c.notices == 1) {
            Answer a = notice->Answers()[0];
            EXPECT_EQ(a.status, c.status);
            EXPECT_EQ(a.hadChain, c.status == 0);
            EXPECT_EQ(a.v4, c.v4);
            EXPECT_NE(a.thread, std::this_thread::get_id());
            EXPECT_GE(Clock::now() - start, c.script.delay);
        }
    }
    EXPECT_EQ(fake->HeldCount("never"), 1u);
    EXPECT_EQ(fake->ReleaseHeld("never", Script::Late({"10.0.0.3"})), 1u);
    EXPECT_TRUE(fake->WaitIdle(kWait));
    EXPECT_EQ(fake->HeldCount(), 0u);
    EXPECT_EQ(fake->Delivered(), 4u);
    ASSERT_EQ(fake->TotalRequests(), 6u);
    for (const auto& r : fake->Requests()) {
        EXPECT_TRUE(r.withNotice && r.hasHints);
        EXPECT_EQ(r.family, AF_UNSPEC);
        EXPECT_EQ(r.socktype, SOCK_STREAM);
        EXPECT_EQ(r.flags, AI_ADDRCONFIG);
    }
    EXPECT_THROW(fake->Set("bad", Script::AtOnce({"not-an-address"})), std::invalid_argument);

    // A late answer far off and a held one: both dropped, without waiting.
    auto notice = std::make_shared<RecordingNotice>();
    fake->Set("slow", Script::Late({"10.0.0.1"}, 30s));
    fake->ResolveHost("slow", nullptr, notice, nullptr, nullptr);
    fake->ResolveHost("never", nullptr, notice, nullptr, nullptr);
    auto start = Clock::now();
    fake.reset();
    EXPECT_LT(Clock::now() - start, kWait);
    EXPECT_TRUE(notice->Answers().empty());
    EXPECT_EQ(notice.use_count(), 1);
}

}  // namespace
