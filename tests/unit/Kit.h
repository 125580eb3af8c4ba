// What the area tests share: a frame that always stops, done functions and a
// notice that record every call, one-call transfers and a scripted resolver.
#pragma once

#include <gtest/gtest.h>
#include <netdb.h>

#include <algorithm>
#include <climits>
#include <future>
#include <mutex>
#include <thread>

#include "hostseek/IHostseekInterface.h"
#include "netloop/IHttpHandleInterface.h"
#include "netloop/IHttpInterface.h"
#include "netloop/ITimerHandleInterface.h"
#include "netloop/IUdpHandleInterface.h"
#include "support/CaptureLogger.h"
#include "support/Servers.h"
#include "support/Wait.h"

namespace kit {

using namespace netloop;
using namespace testsupport;
using hostseek_interface::IHostseekInterface;
using hostseek_interface::IHostseekResultNotic;

// A running frame; a stop that never returns aborts the run instead of hanging it.
struct Frame {
    std::shared_ptr<IHttpInterface> f = IHttpInterface::Create();
    explicit Frame(bool share = false, bool pipelining = false) {
        EXPECT_EQ(f->Init(nullptr, pipelining, share, nullptr), 0);
        EXPECT_EQ(f->Start(true), 0);
    }
    ~Frame() { Stop(); }
    IHttpInterface* operator->() const { return f.get(); }
    int Stop() {
        auto stopped = std::async(std::launch::async, [f = f] { return f->Stop(false); });
        if (stopped.wait_for(std::chrono::seconds(60)) == std::future_status::ready) return stopped.get();
        ADD_FAILURE() << "the frame did not stop within 60 s";
        std::abort();
    }
};

// Guards the members of a recorder that the loop thread writes.
struct Locked {
    mutable std::mutex m;
    template <typename T, typename C>
    T Get(T C::*field) const {
        std::lock_guard<std::mutex> lock(m);
        return static_cast<const C*>(this)->*field;
    }
};

// The results of a done function; Fn() fits every handle kind.
struct Done {
    struct State : Locked {
        std::vector<int> results;
    };
    std::shared_ptr<State> s = std::make_shared<State>();
    auto Fn() const {
        return [s = s](auto, void*, int rc) {
            std::lock_guard<std::mutex> lock(s->m);
            s->results.push_back(rc);
        };
    }
    std::vector<int> Results() const { return s->Get(&State::results); }
    // The first result, waited for; INT_MIN (and a failure) when none came.
    int Result(const std::string& what = "the done function") const {
        EXPECT_TRUE(Await([&] { return !Results().empty(); }, what));
        return Results().empty() ? INT_MIN : Results()[0];
    }
};

struct Recorder : IHttpHandleNotic, Locked {
    std::vector<int> finishes, states;
    std::vector<std::pair<int, std::string>> messages;  // type, bytes
    int progress = 0;
    curl_off_t lastDlNow = 0;
    std::function<size_t(char*, size_t)> upload;

    void OnWsData(const char* data, size_t length, int type, void*) override {
        std::lock_guard<std::mutex> lock(m);
        messages.emplace_back(type, std::string(data, length));
    }
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t dlnow, curl_off_t, curl_off_t, void*) override {
        std::lock_guard<std::mutex> lock(m);
        ++progress;
        lastDlNow = dlnow;
    }
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char* buf, size_t size, size_t n, void*) override {
        return upload ? upload(buf, size * n) : 0;
    }
    void OnFinish(std::shared_ptr<IHttpHandleInterface>, int result, void*) override {
        std::lock_guard<std::mutex> lock(m);
        finishes.push_back(result);
    }
    void OnWsState(std::shared_ptr<IHttpHandleInterface>, int state, void*) override {
        std::lock_guard<std::mutex> lock(m);
        states.push_back(state);
    }
    ::testing::AssertionResult AwaitMessages(size_t n) {
        return Await([&] { return Get(&Recorder::messages).size() >= n; }, std::to_string(n) + " message(s)");
    }
    ::testing::AssertionResult AwaitState(int state) {
        return Await([&] { auto s = Get(&Recorder::states); return std::count(s.begin(), s.end(), state) > 0; },
                     "OnWsState(" + std::to_string(state) + ")");
    }
};

// An armed handle of `type` for `url` with its recorder.
struct Transfer {
    std::shared_ptr<Recorder> rec = std::make_shared<Recorder>();
    std::shared_ptr<IHttpHandleInterface> h = IHttpHandleInterface::Create();
    explicit Transfer(const std::string& url, int type = HTTP_REQ_GET, int timeoutMs = 0) {
        EXPECT_EQ(h->InitHttpReq(url.c_str(), "tag", type, rec, 0, timeoutMs, nullptr), 0) << url;
    }
    IHttpHandleInterface* operator->() const { return h.get(); }
    // Adds and returns what OnFinish said; the handle stays armed.
    int Run(Frame& frame) {
        EXPECT_EQ(frame->AddHttpReq(h, true, nullptr, nullptr), 0);
        if (!Await([&] { return !rec->Get(&Recorder::finishes).empty(); }, "OnFinish")) return INT_MIN;
        return rec->Get(&Recorder::finishes)[0];
    }
    int Del(Frame& frame) {
        Done done;
        return frame->DelHttpReq(h, true, done.Fn(), nullptr) != 0 ? -1 : done.Result("DelHttpReq's done");
    }
};

inline std::shared_ptr<std::vector<uint8_t>> Bytes(const std::string& s) {
    return std::make_shared<std::vector<uint8_t>>(s.begin(), s.end());
}

// Answers every name with `status` and, on success, the numeric `address`: at
// once, or late from a thread of its own. Install it with
// IHostseekInterface::GetHostseekInstance(3, resolver).
struct ScriptedResolver : IHostseekInterface {
    int status;
    bool atOnce;
    addrinfo* answer = nullptr;
    std::vector<std::thread> threads;
    ScriptedResolver(int s, const std::string& address, bool now) : status(s), atOnce(now) {
        addrinfo hints{};
        hints.ai_flags = AI_NUMERICHOST;
        if (status == 0) getaddrinfo(address.c_str(), nullptr, &hints, &answer);
    }
    int ResolveHost(const char*, const addrinfo*, std::shared_ptr<IHostseekResultNotic> notic, void* user,
                    addrinfo** result) override {
        if (atOnce && status == 0) return *result = answer, 0;
        threads.emplace_back([=] { notic->OnHostseekResult(status, status == 0 ? answer : nullptr, user); });
        return EAI_AGAIN;
    }
    ~ScriptedResolver() override {
        for (auto& t : threads) t.join();
        if (answer) freeaddrinfo(answer);
    }
};

}  // namespace kit
