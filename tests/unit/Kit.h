// What the area tests share: a frame that always stops, a notice that records
// every call, done functions that keep their result, and one-call transfers.
#pragma once

#include <gtest/gtest.h>

#include <climits>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <netdb.h>

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

// A running frame; the destructor stops it, and a stop that never returns
// aborts the run instead of hanging it.
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
        if (stopped.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
            ADD_FAILURE() << "the frame did not stop within 60 s";
            std::abort();
        }
        return stopped.get();
    }
};

// Keeps the results of a done function; Fn() fits every handle kind.
struct Done {
    struct State {
        std::mutex m;
        std::vector<int> results;
    };
    std::shared_ptr<State> s = std::make_shared<State>();
    auto Fn() const {
        return [s = s](auto, void*, int rc) {
            std::lock_guard<std::mutex> lock(s->m);
            s->results.push_back(rc);
        };
    }
    std::vector<int> Results() const {
        std::lock_guard<std::mutex> lock(s->m);
        return s->results;
    }
    // The first result, waited for; INT_MIN (and a failure) when none came.
    int Result(const std::string& what = "the done function") const {
        EXPECT_TRUE(Await([&] { return !Results().empty(); }, what));
        auto r = Results();
        return r.empty() ? INT_MIN : r[0];
    }
};

// Records what an HTTP or WebSocket transfer tells its notice.
struct Recorder : IHttpHandleNotic {
    struct Message {
        int type;
        std::string data;
    };
    std::mutex m;
    std::vector<int> finishes, states;
    std::vector<Message> messages;
    int progress = 0;
    curl_off_t lastDlNow = 0;
    std::function<size_t(char*, size_t)> upload;
    std::function<void(std::shared_ptr<IHttpHandleInterface>, int)> onState;

    void OnWsData(const char* data, size_t length, int type, void*) override {
        std::lock_guard<std::mutex> lock(m);
        messages.push_back({type, std::string(data, length)});
    }
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t dlnow, curl_off_t, curl_off_t, void*) override {
        std::lock_guard<std::mutex> lock(m);
        ++progress;
        lastDlNow = dlnow;
    }
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char* buffer, size_t size, size_t nitems,
                        void*) override {
        return upload ? upload(buffer, size * nitems) : 0;
    }
    void OnFinish(std::shared_ptr<IHttpHandleInterface>, int result, void*) override {
        std::lock_guard<std::mutex> lock(m);
        finishes.push_back(result);
    }
    void OnWsState(std::shared_ptr<IHttpHandleInterface> handle, int state, void*) override {
        if (onState) onState(handle, state);
        std::lock_guard<std::mutex> lock(m);
        states.push_back(state);
    }
    template <typename T>
    T Get(T Recorder::*field) {
        std::lock_guard<std::mutex> lock(m);
        return this->*field;
    }
    ::testing::AssertionResult AwaitFinish() {
        return Await([&] { return !Get(&Recorder::finishes).empty(); }, "OnFinish");
    }
    ::testing::AssertionResult AwaitMessages(size_t n) {
        return Await([&] { return Get(&Recorder::messages).size() >= n; }, std::to_string(n) + " WebSocket message(s)");
    }
    ::testing::AssertionResult AwaitState(int state) {
        return Await(
            [&] {
                auto s = Get(&Recorder::states);
                return std::find(s.begin(), s.end(), state) != s.end();
            },
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
    // Adds, waits for OnFinish and returns its result; the handle stays armed.
    int Run(Frame& frame) {
        EXPECT_EQ(frame->AddHttpReq(h, true, nullptr, nullptr), 0);
        if (!rec->AwaitFinish()) return INT_MIN;
        return rec->Get(&Recorder::finishes)[0];
    }
    // Deletes through the frame and waits for the done function.
    int Del(Frame& frame) {
        Done done;
        if (frame->DelHttpReq(h, true, done.Fn(), nullptr) != 0) return -1;
        return done.Result("the done function of DelHttpReq");
    }
};

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
    int ResolveHost(const char*, const struct addrinfo*, std::shared_ptr<IHostseekResultNotic> notic,
                    void* userData, struct addrinfo** result) override {
        if (atOnce && status == 0) {
            *result = answer;
            return 0;
        }
        threads.emplace_back([this, notic, userData] {
            if (notic) notic->OnHostseekResult(status, status == 0 ? answer : nullptr, userData);
        });
        return EAI_AGAIN;
    }
    ~ScriptedResolver() override {
        for (auto& t : threads) t.join();
        if (answer) freeaddrinfo(answer);
    }
};

}  // namespace kit
