// Shared pieces of the HTTP tests that talk to loopback servers: a recording
// notice, done-function probes, a loop-thread runner and a bounded stop.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "FrameTestKit.h"
#include "frame/HttpFrame.h"
#include "http/HttpHandle.h"

namespace httptest {

using namespace netloop;
using namespace std::chrono_literals;

inline bool Sanitized() { return std::getenv("NETLOOP_SANITIZED") != nullptr; }

inline std::shared_ptr<CHttpFrame> Impl(const std::shared_ptr<IHttpInterface>& frame) {
    return std::static_pointer_cast<CHttpFrame>(frame);
}

// An idle handle has no easy handle, and only then answers -1 here.
inline bool IsIdle(const std::shared_ptr<IHttpHandleInterface>& handle) { return handle->GetResponseCode() == -1; }

struct FinishCall {
    int result;
    long status;
    int32_t tid;
    void* userData;
};

struct ProgressCall {
    std::string tag, url;
    curl_off_t dltotal, dlnow, ultotal, ulnow;
    void* userData;
};

// Records every notice call; a test hooks the calls it wants to act in.
class Notice : public IHttpHandleNotic {
public:
    std::function<void(const std::shared_ptr<IHttpHandleInterface>&, int)> onFinish;
    std::function<void(const ProgressCall&)> onProgress;
    std::function<size_t(char*, size_t)> onUpload;

    void OnWsData(const char*, size_t, int, void*) override {}
    void OnProgress(const char* tag, const char* url, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal,
                    curl_off_t ulnow, void* userData) override {
        ProgressCall call{tag, url, dltotal, dlnow, ultotal, ulnow, userData};
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Progress.push_back(call);
        }
        if (onProgress) onProgress(call);
    }
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char* buffer, size_t size, size_t nitems,
                        void*) override {
        return onUpload ? onUpload(buffer, size * nitems) : 0;
    }
    void OnFinish(std::shared_ptr<IHttpHandleInterface> handle, int result, void* userData) override {
        FinishCall call{result, handle->GetResponseCode(), sysutil::GetTid(), userData};
        if (onFinish) onFinish(handle, result);
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Finishes.push_back(call);
        m_Cond.notify_all();
    }

    std::vector<FinishCall> Finishes() const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Finishes;
    }
    std::vector<ProgressCall> Progress() const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Progress;
    }
    bool WaitFinishes(size_t n, std::chrono::milliseconds timeout = 30s) const {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Cond.wait_for(lock, timeout, [&] { return m_Finishes.size() >= n; });
    }

private:
    mutable std::mutex m_Mutex;
    mutable std::condition_variable m_Cond;
    std::vector<FinishCall> m_Finishes;
    std::vector<ProgressCall> m_Progress;
};

// Collects the results of a done function, in call order.
class DoneProbe {
public:
    HttpDoneFunc Fn() {
        auto state = m_State;
        return [state](std::shared_ptr<IHttpHandleInterface>, void*, int rc) {
            std::lock_guard<std::mutex> lock(state->mutex);
            state->results.push_back(rc);
            state->cond.notify_all();
        };
    }
    // The result of call `nth` (1-based); INT_MIN when it did not come in time.
    int Wait(size_t nth = 1, std::chrono::milliseconds timeout = 10s) const {
        std::unique_lock<std::mutex> lock(m_State->mutex);
        if (!m_State->cond.wait_for(lock, timeout, [&] { return m_State->results.size() >= nth; })) return INT_MIN;
        return m_State->results[nth - 1];
    }
    size_t Count() const {
        std::lock_guard<std::mutex> lock(m_State->mutex);
        return m_State->results.size();
    }

private:
    struct State {
        std::mutex mutex;
        std::condition_variable cond;
        std::vector<int> results;
    };
    std::shared_ptr<State> m_State = std::make_shared<State>();
};

// Runs a function on a frame's loop thread through a queued record.
class LoopTask : public IAsynOperInterface {
public:
    std::function<void()> fn;
    int DoAsynOper(std::shared_ptr<AsynOperReq>, std::shared_ptr<CHttpFrame>) override {
        fn();
        return 0;
    }
    bool CancelAsynOper(std::shared_ptr<AsynOperReq>) override { return false; }
};

template <typename Fn>
auto OnLoop(const std::shared_ptr<IHttpInterface>& frame, Fn fn) -> decltype(fn()) {
    using R = decltype(fn());
    auto task = std::make_shared<LoopTask>();
    std::promise<R> result;
    task->fn = [&] {
        if constexpr (std::is_void_v<R>) {
            fn();
            result.set_value();
        } else {
            result.set_value(fn());
        }
    };
    auto oper = std::make_shared<AsynOperReq>();
    oper->m_Type = OperStopTimer;
    oper->m_Oper = task;
    Impl(frame)->PostAsynOper(oper);
    auto future = result.get_future();
    if (future.wait_for(10s) != std::future_status::ready) {
        ADD_FAILURE() << "the loop thread did not run the task";
        std::abort();  // the task still refers to this frame of the stack
    }
    return future.get();
}

using frametest::StartFrame;
using frametest::StopFrame;

// Deletes a handle through the frame and waits for its done function and the
// teardown that follows it.
inline int Delete(const std::shared_ptr<IHttpInterface>& frame, const std::shared_ptr<IHttpHandleInterface>& handle) {
    DoneProbe done;
    if (frame->DelHttpReq(handle, false, done.Fn(), nullptr) != 0) return INT_MIN;
    int rc = done.Wait();
    OnLoop(frame, [] {});
    return rc;
}

struct Outcome {
    int added = INT_MIN;     // the add's done result
    int result = INT_MIN;    // OnFinish's result
    long status = -1;        // GetResponseCode inside OnFinish
    size_t finishes = 0;
    std::string body;        // GetResponse after the teardown
};

// One transfer from arming to teardown. `configure` runs between InitHttpReq
// and the add.
inline Outcome RunTransfer(const std::shared_ptr<IHttpInterface>& frame, const std::string& url, int type = HTTP_REQ_GET,
                           const std::function<void(IHttpHandleInterface&)>& configure = nullptr,
                           int timeoutMs = 20000, std::shared_ptr<Notice> notice = nullptr) {
    Outcome out;
    if (!notice) notice = std::make_shared<Notice>();
    auto handle = IHttpHandleInterface::Create();
    if (handle->InitHttpReq(url.c_str(), "tag", type, notice, 5000, timeoutMs, nullptr) != 0) {
        ADD_FAILURE() << "InitHttpReq refused " << url;
        return out;
    }
    if (configure) configure(*handle);
    DoneProbe added;
    EXPECT_EQ(frame->AddHttpReq(handle, false, added.Fn(), nullptr), 0);
    out.added = added.Wait();
    if (out.added == 0) {
        EXPECT_TRUE(notice->WaitFinishes(1, std::chrono::milliseconds(timeoutMs) + 10s)) << url;
    }
    auto finishes = notice->Finishes();
    out.finishes = finishes.size();
    if (!finishes.empty()) {
        out.result = finishes[0].result;
        out.status = finishes[0].status;
    }
    EXPECT_EQ(Delete(frame, handle), 0);
    out.body = handle->GetResponse();
    return out;
}

}  // namespace httptest
