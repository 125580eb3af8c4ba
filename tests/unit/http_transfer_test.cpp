// HTTP transfers end to end against loopback servers: outcomes and their log
// lines, many transfers at once, the address pin, every way of reusing and
// ending a handle, the socket bridge, and what a stop leaves behind.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <set>
#include <thread>

#include "HttpTestKit.h"
#include "frame/CurlSocketRec.h"
#include "support/CaptureLogger.h"
#include "support/FakeResolver.h"
#include "loopback/HttpTestServer.h"
#include "loopback/ProcessStats.h"
#include "loopback/TestData.h"
#include "loopback/TestTls.h"
#include "support/Wait.h"

using namespace httptest;
using testsupport::FakeResolver;
using testsupport::HttpTestServer;
using testsupport::ScopedCaptureLogger;
using testsupport::ScopedResolver;
using testsupport::WaitUntil;

namespace {

// A loopback port that refuses connections: bound, never listening.
class RefusingPort {
public:
    RefusingPort() {
        m_Fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(m_Fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
        socklen_t len = sizeof(addr);
        ::getsockname(m_Fd, reinterpret_cast<sockaddr*>(&addr), &len);
        m_Port = ntohs(addr.sin_port);
    }
    ~RefusingPort() { ::close(m_Fd); }
    uint16_t Port() const { return m_Port; }

private:
    int m_Fd = -1;
    uint16_t m_Port = 0;
};

std::string DoneLine(const std::string& url, CURLcode code) {
    return "[NETLOOP]" + url + " DONE result[" + std::to_string(code) + ":" + curl_easy_strerror(code) + "]";
}

std::string MultiError(CURLMcode code, const char* what) {
    return "[NETLOOP]err[" + std::to_string(code) + ":" + curl_multi_strerror(code) + "]" + what;
}

TEST(HttpTransfer, OutcomesReachOnFinishAndTheLog) {
    ScopedCaptureLogger log;
    HttpTestServer server;
    RefusingPort refusing;
    auto frame = StartFrame();
    const uint64_t big = 64ull << 20;
    struct Case {
        std::string url;
        int timeoutMs;
        int result;
        long status;
        CURLcode code;
        std::string bodySha;
    };
    const std::string refused = "http://127.0.0.1:" + std::to_string(refusing.Port()) + "/fixed";
    const Case cases[] = {
        {server.Url("/fixed"), 20000, 0, 200, CURLE_OK, testsupport::Sha256Hex("hello netloop")},
        {server.Url("/status/404"), 20000, 0, 404, CURLE_OK, testsupport::Sha256Hex("status 404\n")},
        {server.Url("/status/500"), 20000, 0, 500, CURLE_OK, testsupport::Sha256Hex("status 500\n")},
        {refused, 20000, -2, 0, CURLE_COULDNT_CONNECT, testsupport::Sha256Hex("")},
        {server.Url("/delay/3000"), 300, -2, 0, CURLE_OPERATION_TIMEDOUT, testsupport::Sha256Hex("")},
        {server.Url("/chunked?parts=37&size=1001"), 20000, 0, 200, CURLE_OK, testsupport::DeterministicSha256(37 * 1001)},
        {server.Url("/bytes/" + std::to_string(big)), 60000, 0, 200, CURLE_OK, testsupport::DeterministicSha256(big)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.url);
        log->Clear();
        Outcome out = RunTransfer(frame, c.url, HTTP_REQ_GET, nullptr, c.timeoutMs);
        EXPECT_EQ(out.added, 0);
        EXPECT_EQ(out.finishes, 1u);
        EXPECT_EQ(out.result, c.result);
        EXPECT_EQ(out.status, c.status);
        EXPECT_EQ(testsupport::Sha256Hex(out.body), c.bodySha) << out.body.size() << " bytes";
        EXPECT_EQ(log->Count(DoneLine(c.url, c.code), c.code == CURLE_OK ? 0 : 60), 1u);
        EXPECT_EQ(log->CountContaining(" DONE result["), 1u);
    }
    StopFrame(frame);
}

// Also on a frame with multiplexing and tight connection limits, where most
// transfers wait inside libcurl for a connection.
TEST(HttpTransfer, ThousandTransfersFromFourThreadsFinishOnceEach) {
    HttpTestServer server;
    const int kThreads = 4;
    const int perThread = Sanitized() ? 60 : 250;
    const int total = kThreads * perThread;
    for (bool pipelining : {false, true}) {
        SCOPED_TRACE(pipelining ? "limited connections" : "libcurl's defaults");
        auto frame = StartFrame(false, pipelining);
        struct Slot {
            std::shared_ptr<Notice> notice = std::make_shared<Notice>();
            std::atomic<int> bodyRight{0};
            std::atomic<int> deleted{-99};
        };
        std::vector<Slot> slots(total);
        std::atomic<int> finished{0};
        auto begin = std::chrono::steady_clock::now();
        std::vector<std::thread> producers;
        for (int t = 0; t < kThreads; ++t)
            producers.emplace_back([&, t] {
                for (int i = 0; i < perThread; ++i) {
                    const int n = t * perThread + i;
                    const uint64_t size = 1 + (static_cast<uint64_t>(n) * 7919) % 20000;
                    Slot& slot = slots[n];
                    slot.notice->onFinish = [&, size](const std::shared_ptr<IHttpHandleInterface>& h, int) {
                        slot.bodyRight = h->GetResponse() == testsupport::DeterministicBytes(size) ? 1 : 0;
                        // The direct road from inside OnFinish: torn down at once.
                        slot.deleted = frame->DelHttpReq(h, false, nullptr, nullptr);
                        finished.fetch_add(1);
                    };
                    auto handle = IHttpHandleInterface::Create();
                    const std::string url = server.Url("/bytes/" + std::to_string(size));
                    ASSERT_EQ(handle->InitHttpReq(url.c_str(), nullptr, HTTP_REQ_GET, slot.notice, 5000, 30000, nullptr), 0);
                    ASSERT_EQ(frame->AddHttpReq(handle, false, nullptr, nullptr), 0);
                }
            });
        for (auto& p : producers) p.join();
        ASSERT_TRUE(WaitUntil([&] { return finished.load() == total; }, 60s)) << finished.load() << " of " << total;
        auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
        std::printf("%d transfers from %d threads (%s): %lld ms\n", total, kThreads,
                    pipelining ? "limited connections" : "libcurl's defaults", static_cast<long long>(elapsed.count()));
        OnLoop(frame, [] {});  // nothing more is in flight; a late second OnFinish would show now
        for (int n = 0; n < total; ++n) {
            auto finishes = slots[n].notice->Finishes();
            ASSERT_EQ(finishes.size(), 1u) << n;
            EXPECT_EQ(finishes[0].result, 0) << n;
            EXPECT_EQ(finishes[0].status, 200) << n;
            EXPECT_EQ(slots[n].bodyRight.load(), 1) << n;
            EXPECT_EQ(slots[n].deleted.load(), 0) << n;
        }
        StopFrame(frame);
    }
}

TEST(HttpTransfer, AddressPinReachesServersNoDnsKnows) {
    auto fake = std::make_shared<FakeResolver>();
    ScopedResolver scoped(fake);
    HttpTestServer v4;
    HttpTestServer::Options v6opts;
    v6opts.ipv6 = true;
    HttpTestServer v6(v6opts);
    fake->Set("pin.test", FakeResolver::Script::AtOnce({"127.0.0.1"}));
    fake->Set("pin6.test", FakeResolver::Script::AtOnce({"::1"}));
    fake->Set("late.test", FakeResolver::Script::Late({"127.0.0.1"}, 10ms));
    auto frame = StartFrame();
    struct Case {
        std::string url;
        int result;
        long status;
    };
    const Case cases[] = {
        {"http://pin.test:" + std::to_string(v4.Port()) + "/fixed", 0, 200},
        {"http://pin6.test:" + std::to_string(v6.Port()) + "/fixed", 0, 200},
        // Nothing at hand: no pin, and libcurl's own look-up knows no such name.
        {"http://late.test:" + std::to_string(v4.Port()) + "/fixed", -2, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.url);
        Outcome out = RunTransfer(frame, c.url, HTTP_REQ_GET, nullptr, 10000);
        EXPECT_EQ(out.result, c.result);
        EXPECT_EQ(out.status, c.status);
        EXPECT_EQ(out.body, c.result == 0 ? "hello netloop" : "");
    }
    EXPECT_EQ(v4.RequestCount(), 1u);
    EXPECT_EQ(v6.RequestCount(), 1u);
    StopFrame(frame);
}

TEST(HttpTransfer, HandlesAreReusedBothWays) {
    HttpTestServer server;
    auto frame = StartFrame();
    auto notice = std::make_shared<Notice>();
    auto handle = IHttpHandleInterface::Create();
    ASSERT_EQ(handle->InitHttpReq(server.Url("/fixed").c_str(), "t", HTTP_REQ_GET, notice, 5000, 10000, nullptr), 0);
    // Added again after OnFinish: the same easy handle runs again and the body
    // is appended.
    for (size_t round = 1; round <= 2; ++round) {
        DoneProbe added;
        ASSERT_EQ(frame->AddHttpReq(handle, false, added.Fn(), nullptr), 0);
        EXPECT_EQ(added.Wait(), 0);
        ASSERT_TRUE(notice->WaitFinishes(round));
    }
    EXPECT_EQ(handle->GetResponse(), "hello netloophello netloop");
    EXPECT_EQ(Delete(frame, handle), 0);
    EXPECT_TRUE(IsIdle(handle));
    // Deleted and armed anew: a new easy handle, the old text still in front.
    ASSERT_EQ(handle->InitHttpReq(server.Url("/status/404").c_str(), "t", HTTP_REQ_GET, notice, 5000, 10000, nullptr), 0);
    ASSERT_EQ(frame->AddHttpReq(handle, false, nullptr, nullptr), 0);
    ASSERT_TRUE(notice->WaitFinishes(3));
    EXPECT_EQ(notice->Finishes()[2].status, 404);
    EXPECT_EQ(handle->GetResponse(), "hello netloophello netloopstatus 404\n");
    EXPECT_EQ(Delete(frame, handle), 0);
    EXPECT_EQ(notice->Finishes().size(), 3u);
    StopFrame(frame);
}

// Every way a transfer can be ended or disturbed by the application, with
// and without a share.
TEST(HttpTransfer, EndingAndDisturbingTransfers) {
    HttpTestServer server;
    const std::string removeFailed =
        MultiError(CURLM_BAD_EASY_HANDLE, "curl_multi_remove_handle failed while DelHttpReq");
    const std::string addTwice = MultiError(CURLM_ADDED_ALREADY, "curl_multi_add_handle failed while AddHttpReq");
    const std::string addIdle = MultiError(CURLM_BAD_EASY_HANDLE, "curl_multi_add_handle failed while AddHttpReq");
    const std::string drip = "/drip?bytes=40&interval=20&piece=2", quick = "/fixed?size=100";

    // What the application does from inside a notice, on the loop thread.
    enum Hook { kNone, kDeleteInFinish, kDeleteInProgress, kDisconnectInProgress, kAddInProgress };
    struct Env {
        std::shared_ptr<IHttpInterface> frame;
        std::shared_ptr<IHttpHandleInterface> handle;
        std::shared_ptr<Notice> notice;
        testsupport::CaptureLogger* log;
    };
    struct Case {
        const char* name;
        std::string path;  // empty: the handle is never armed
        Hook hook;
        size_t finishes;
        std::function<void(Env&)> act;  // from the test thread, once the add is done
    };
    const Case cases[] = {
        {"delete while running", "/silent", kNone, 0, [](Env& e) { EXPECT_EQ(Delete(e.frame, e.handle), 0); }},
        {"delete twice", "/fixed", kNone, 1,
         [&](Env& e) {
             ASSERT_TRUE(e.notice->WaitFinishes(1));
             EXPECT_EQ(Delete(e.frame, e.handle), 0);
             EXPECT_EQ(Delete(e.frame, e.handle), -1);
             EXPECT_EQ(e.log->Count(removeFailed, 60), 1u);
         }},
        {"disconnect aborts and keeps the handle armed", "/silent", kNone, 0,
         [](Env& e) {
             EXPECT_EQ(e.handle->Disconnect(), 0);
             OnLoop(e.frame, [] {});  // the queued removal has run
             EXPECT_EQ(e.log->Count("[NETLOOP]disconnect web socket", 20), 1u);
             EXPECT_EQ(e.handle->GetResponseCode(), 0);
         }},
        {"a second add of a running handle is refused", "/delay/300", kNone, 1,
         [&](Env& e) {
             DoneProbe second;
             EXPECT_EQ(e.frame->AddHttpReq(e.handle, false, second.Fn(), nullptr), 0);
             EXPECT_EQ(second.Wait(), -1);
             EXPECT_EQ(e.log->Count(addTwice, 60), 1u);
         }},
        {"an idle handle is not added", "", kNone, 0, [&](Env& e) { EXPECT_EQ(e.log->Count(addIdle, 60), 1u); }},
        {"delete inside OnFinish runs at once", "/fixed", kDeleteInFinish, 1, nullptr},
        {"delete from inside OnProgress", drip, kDeleteInProgress, 0, nullptr},
        {"delete from inside OnProgress, body complete", quick, kDeleteInProgress, 0, nullptr},
        {"disconnect from inside OnProgress", drip, kDisconnectInProgress, 0, nullptr},
        {"disconnect from inside OnProgress, body complete", quick, kDisconnectInProgress, 0, nullptr},
        // Refused as a second add, not as a call nested in libcurl.
        {"add from inside OnProgress", drip, kAddInProgress, 1,
         [&](Env& e) { EXPECT_TRUE(WaitUntil([&] { return e.log->Count(addTwice, 60) == 1; })); }},
    };

    for (bool share : {false, true}) {
        auto frame = StartFrame(share);
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(c.name) + (share ? " (share)" : ""));
            ScopedCaptureLogger log;
            Env env{frame, IHttpHandleInterface::Create(), std::make_shared<Notice>(), &*log};
            std::weak_ptr<IHttpHandleInterface> weak = env.handle;
            struct Inside {  // written on the loop thread
                int rc = INT_MIN;
                bool idleAfter = false;
                bool fired = false;
                DoneProbe done;
            };
            auto inside = std::make_shared<Inside>();
            const Hook hook = c.hook;
            auto act = [frame, inside, hook](const std::shared_ptr<IHttpHandleInterface>& h) {
                inside->fired = true;
                if (hook == kDeleteInFinish || hook == kDeleteInProgress)
                    inside->rc = frame->DelHttpReq(h, false, inside->done.Fn(), nullptr);
                if (hook == kDisconnectInProgress) inside->rc = h->Disconnect();
                if (hook == kAddInProgress) inside->rc = frame->AddHttpReq(h, false, inside->done.Fn(), nullptr);
                inside->idleAfter = IsIdle(h);
            };
            if (hook == kDeleteInFinish) {
                env.notice->onFinish = [act](const std::shared_ptr<IHttpHandleInterface>& h, int) { act(h); };
            } else if (hook != kNone) {
                env.notice->onProgress = [act, inside, weak](const ProgressCall& p) {
                    if (!inside->fired && p.dlnow > 0) act(weak.lock());
                };
            }
            if (!c.path.empty()) {
                const std::string url = server.Url(c.path);
                ASSERT_EQ(env.handle->InitHttpReq(url.c_str(), "t", HTTP_REQ_GET, env.notice, 5000, 20000, nullptr), 0);
                ASSERT_EQ(env.handle->EnableProgress(hook != kNone && hook != kDeleteInFinish), 0);
            }
            DoneProbe added;
            ASSERT_EQ(frame->AddHttpReq(env.handle, false, added.Fn(), nullptr), 0);
            ASSERT_EQ(added.Wait(), c.path.empty() ? -1 : 0);
            if (c.act) c.act(env);
            if (hook != kNone) {
                ASSERT_TRUE(WaitUntil([&] { return OnLoop(frame, [&] { return inside->fired; }); }));
                OnLoop(frame, [] {});  // records queued by the hook have run
                // Inside OnFinish the direct road: done and teardown within the
                // call. Inside libcurl the queue road: nothing changed under it.
                EXPECT_EQ(inside->rc, 0);
                EXPECT_EQ(inside->idleAfter, hook == kDeleteInFinish);
                if (hook != kDisconnectInProgress) {
                    EXPECT_EQ(inside->done.Wait(), hook == kAddInProgress ? -1 : 0);
                }
            }
            if (c.finishes > 0) {
                ASSERT_TRUE(env.notice->WaitFinishes(c.finishes));
                EXPECT_EQ(env.notice->Finishes()[0].result, 0);
            }
            OnLoop(frame, [] {});
            EXPECT_EQ(env.notice->Finishes().size(), c.finishes);
            if (!IsIdle(env.handle)) {
                EXPECT_EQ(Delete(frame, env.handle), 0);
            }
            EXPECT_EQ(log->Count(removeFailed), c.name == std::string("delete twice") ? 1u : 0u);
            env.handle.reset();
            EXPECT_TRUE(weak.expired());  // nothing kept the handle
        }
        StopFrame(frame);
    }
}

TEST(HttpTransfer, DroppedHandleRunsToItsEndAndGoesWithTheDelete) {
    HttpTestServer server;
    auto frame = StartFrame();
    auto notice = std::make_shared<Notice>();
    DoneProbe deleted;
    std::string body;
    notice->onFinish = [&](const std::shared_ptr<IHttpHandleInterface>& h, int) {
        body = h->GetResponse();
        frame->DelHttpReq(h, false, deleted.Fn(), nullptr);
    };
    std::weak_ptr<IHttpHandleInterface> weak;
    {
        auto handle = IHttpHandleInterface::Create();
        weak = handle;
        ASSERT_EQ(handle->InitHttpReq(server.Url("/delay/100").c_str(), "t", HTTP_REQ_GET, notice, 5000, 10000,
                                      nullptr), 0);
        ASSERT_EQ(frame->AddHttpReq(handle, false, nullptr, nullptr), 0);
    }
    EXPECT_FALSE(weak.expired());
    ASSERT_TRUE(notice->WaitFinishes(1));
    EXPECT_EQ(deleted.Wait(), 0);
    EXPECT_EQ(body, "delayed 100\n");
    EXPECT_TRUE(WaitUntil([&] { return weak.expired(); }));
    StopFrame(frame);
}

TEST(HttpTransfer, StopCancelsAQueuedAddBeforeItStarts) {
    HttpTestServer server;
    auto frame = StartFrame();
    auto handle = IHttpHandleInterface::Create();
    ASSERT_EQ(handle->InitHttpReq(server.Url("/fixed").c_str(), "t", HTTP_REQ_GET, std::make_shared<Notice>(), 5000,
                                  10000, nullptr), 0);
    std::promise<void> entered, queued;
    DoneProbe added, deleted;
    int stopRc = INT_MIN;
    // The loop thread waits inside a task until the add is queued, then stops
    // the frame there and ends the handle, which only the loop thread may now.
    auto task = std::async(std::launch::async, [&] {
        OnLoop(frame, [&] {
            entered.set_value();
            queued.get_future().wait_for(10s);
            stopRc = frame->Stop(false);
            frame->DelHttpReq(handle, false, deleted.Fn(), nullptr);
        });
    });
    ASSERT_EQ(entered.get_future().wait_for(10s), std::future_status::ready);
    ASSERT_EQ(frame->AddHttpReq(handle, false, added.Fn(), nullptr), 0);
    queued.set_value();
    task.get();
    EXPECT_EQ(stopRc, 0);
    EXPECT_EQ(added.Wait(), -1);
    EXPECT_EQ(deleted.Wait(), 0);
    EXPECT_TRUE(IsIdle(handle));
    ASSERT_TRUE(WaitUntil([&] { return Impl(frame)->m_State.load() == FrameIdle; }));
    EXPECT_EQ(server.RequestCount(), 0u);
    EXPECT_EQ(server.ConnectionCount(), 0u);
}

// ---------------------------------------------------------------------------
// The socket bridge

struct SocketCall {
    curl_socket_t socket;
    int action;
    void* socketp;
    int pevents;  // what the poll handle watched after the call
    int32_t frameState;
};

std::mutex g_SpyMutex;
std::vector<SocketCall> g_SocketCalls;

int SpySocket(CURL* easy, curl_socket_t socket, int action, void* userp, void* socketp) {
    int rc = CHttpFrame::HandleSocket(easy, socket, action, userp, socketp);
    std::lock_guard<std::mutex> lock(g_SpyMutex);
    int pevents = 0;
    if (socketp != nullptr && action != CURL_POLL_REMOVE)
        pevents = static_cast<CurlSocketRec*>(socketp)->m_Poll.io_watcher.pevents;
    g_SocketCalls.push_back({socket, action, socketp, pevents, static_cast<CHttpFrame*>(userp)->m_State.load()});
    return rc;
}

std::shared_ptr<IHttpInterface> SpiedFrame(bool share) {
    {
        std::lock_guard<std::mutex> lock(g_SpyMutex);
        g_SocketCalls.clear();
    }
    auto frame = IHttpInterface::Create();
    EXPECT_EQ(frame->Init(nullptr, false, share, nullptr), 0);
    EXPECT_EQ(curl_multi_setopt(Impl(frame)->m_Multi, CURLMOPT_SOCKETFUNCTION, &SpySocket), CURLM_OK);
    EXPECT_EQ(frame->Start(true), 0);
    return frame;
}

TEST(CurlBridge, OneRecordPerSocketWatchingWhatLibcurlLastAsked) {
    HttpTestServer server;
    auto frame = SpiedFrame(false);
    const uint64_t size = 4u << 20;
    for (int i = 0; i < 3; ++i) {
        Outcome out = RunTransfer(frame, server.Url("/upload"), HTTP_REQ_UPLOAD, [&](IHttpHandleInterface& h) {
            EXPECT_EQ(h.SetUploadSize(static_cast<curl_off_t>(size)), 0);
        }, 20000, [&] {
            auto n = std::make_shared<Notice>();
            auto sent = std::make_shared<uint64_t>(0);
            n->onUpload = [sent, size](char* buf, size_t room) {
                size_t len = std::min<uint64_t>(room, size - *sent);
                testsupport::FillDeterministicBytes(*sent, buf, len);
                *sent += len;
                return len;
            };
            return n;
        }());
        EXPECT_EQ(out.result, 0);
        EXPECT_EQ(out.body, "size=" + std::to_string(size) + " sha256=" + testsupport::DeterministicSha256(size));
        EXPECT_EQ(RunTransfer(frame, server.Url("/fixed")).body, "hello netloop");
    }
    StopFrame(frame);

    std::lock_guard<std::mutex> lock(g_SpyMutex);
    std::map<curl_socket_t, void*> current;  // the record libcurl holds for each socket
    size_t changes = 0;
    for (const SocketCall& call : g_SocketCalls) {
        SCOPED_TRACE("socket " + std::to_string(call.socket) + " action " + std::to_string(call.action));
        auto it = current.find(call.socket);
        if (call.action == CURL_POLL_REMOVE) {
            // The record is known here only if libcurl named it before.
            if (it != current.end() && it->second != nullptr) {
                EXPECT_EQ(call.socketp, it->second);
            }
            current.erase(call.socket);
            continue;
        }
        if (it == current.end()) {
            EXPECT_EQ(call.socketp, nullptr);  // a new socket: a record is made
            current[call.socket] = nullptr;
            continue;
        }
        if (it->second == nullptr) {
            ASSERT_NE(call.socketp, nullptr);
            it->second = call.socketp;
        } else {
            EXPECT_EQ(call.socketp, it->second);  // the same record across changes
        }
        ++changes;
        const int want = call.action == CURL_POLL_IN    ? POLLIN
                         : call.action == CURL_POLL_OUT ? POLLOUT
                                                        : (POLLIN | POLLOUT);
        EXPECT_EQ(call.pevents & (POLLIN | POLLOUT), want);
    }
    EXPECT_GT(changes, 0u);
}

TEST(CurlBridge, DirectCallsOnAFrameThatDoesNotRun) {
    ScopedCaptureLogger log;
    auto frame = IHttpInterface::Create();
    ASSERT_EQ(frame->Init(nullptr, false, false, nullptr), 0);
    auto impl = Impl(frame);
    uv_timer_t* timer = &impl->m_Timer;

    // Time-outs: 0 and 1 arm 1 ms, a negative one stops the timer. A 0 also
    // kicks the loop for its next turn; any later call takes the kick back.
    struct TimerCase {
        long timeoutMs;
        bool active;
        uint64_t dueIn;
        bool kicked;
    };
    uv_handle_t* kick = reinterpret_cast<uv_handle_t*>(&impl->m_Kick);
    for (const TimerCase& c : {TimerCase{0, true, 1, true}, TimerCase{1, true, 1, false},
                               TimerCase{0, true, 1, true}, TimerCase{250, true, 250, false},
                               TimerCase{0, true, 1, true}, TimerCase{-1, false, 0, false}}) {
        SCOPED_TRACE(c.timeoutMs);
        uv_update_time(impl->m_Loop.get());
        EXPECT_EQ(CHttpFrame::StartTimeout(impl->m_Multi, c.timeoutMs, impl.get()), 0);
        EXPECT_EQ(uv_is_active(reinterpret_cast<uv_handle_t*>(timer)) != 0, c.active);
        if (c.active) {
            EXPECT_EQ(uv_timer_get_due_in(timer), c.dueIn);
        }
        EXPECT_EQ(uv_is_active(kick) != 0, c.kicked);
    }
    EXPECT_TRUE(log->Lines().empty());

    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    int closedFd = ::dup(fds[0]);
    ::close(closedFd);
    struct SocketCase {
        const char* name;
        curl_socket_t socket;
        int action;
        bool frameGiven;
        int rc;
        std::string line;
    };
    const SocketCase cases[] = {
        {"remove without a record", fds[0], CURL_POLL_REMOVE, true, 0, ""},
        {"no frame", fds[0], CURL_POLL_IN, false, 0, "[NETLOOP]HandleSocket get null userdata"},
        {"unknown action", fds[0], CURL_POLL_NONE, true, 0, "[NETLOOP]HandleSocket Get default Action[0]"},
        // A socket libcurl never named: the record made for it is dropped again.
        {"assign refused", fds[0], CURL_POLL_IN, true, -1,
         MultiError(CURLM_BAD_SOCKET, "curl_multi_assign failed while OnHandleSocket")},
        // libuv cannot watch a closed descriptor: nothing is polled.
        {"poll refused", closedFd, CURL_POLL_INOUT, true, 0, ""},
    };
    for (const SocketCase& c : cases) {
        SCOPED_TRACE(c.name);
        log->Clear();
        EXPECT_EQ(CHttpFrame::HandleSocket(nullptr, c.socket, c.action, c.frameGiven ? impl.get() : nullptr, nullptr),
                  c.rc);
        auto lines = log->Lines();
        if (c.line.empty()) {
            EXPECT_TRUE(lines.empty());
        } else {
            ASSERT_EQ(lines.size(), 1u);
            EXPECT_EQ(lines[0].text, c.line);
            EXPECT_EQ(lines[0].level, 60);
        }
    }
    log->Clear();
    EXPECT_EQ(CHttpFrame::StartTimeout(impl->m_Multi, 5, nullptr), 0);
    EXPECT_TRUE(log->Has("[NETLOOP]StartTimeout get null userdata", 60));
    // Nothing is left polling: the frame's teardown has only its own handles.
    int polls = 0;
    uv_walk(impl->m_Loop.get(), [](uv_handle_t* h, void* arg) {
        if (h->type == UV_POLL && !uv_is_closing(h)) ++*static_cast<int*>(arg);
    }, &polls);
    EXPECT_EQ(polls, 0);

    // A record whose socket is closed already when its removal comes: the
    // loop must neither abort nor keep the record.
    auto* rec = static_cast<CurlSocketRec*>(std::malloc(sizeof(CurlSocketRec)));
    ASSERT_EQ(uv_poll_init_socket(impl->m_Loop.get(), &rec->m_Poll, fds[1]), 0);
    rec->m_Poll.data = rec;
    rec->m_Socket = fds[1];
    rec->m_Frame = impl.get();
    ASSERT_EQ(uv_poll_start(&rec->m_Poll, UV_READABLE, CHttpFrame::CurlPerform), 0);
    uv_run(impl->m_Loop.get(), UV_RUN_NOWAIT);  // the socket is now in the kernel's interest list
    ::close(fds[1]);
    EXPECT_EQ(CHttpFrame::HandleSocket(nullptr, fds[1], CURL_POLL_REMOVE, impl.get(), rec), 0);
    uv_run(impl->m_Loop.get(), UV_RUN_NOWAIT);  // the close callback frees the record
    ::close(fds[0]);
}

// Transfers one after another from OnFinish, `lanes` at a time, until `total`
// have finished; counts failures and wrong bodies.
struct ChainedGets {
    std::atomic<int> started{0}, finished{0}, failures{0}, wrong{0};
    std::vector<std::shared_ptr<Notice>> notices;

    void Run(const std::shared_ptr<IHttpInterface>& frame, const std::string& url, int lanes, int total) {
        std::function<void(int)> launch = [&, total](int lane) {
            if (started.fetch_add(1) >= total) return;
            auto handle = IHttpHandleInterface::Create();
            handle->InitHttpReq(url.c_str(), nullptr, HTTP_REQ_GET, notices[lane], 5000, 20000, nullptr);
            frame->AddHttpReq(handle, false, nullptr, nullptr);
        };
        notices.resize(lanes);
        for (int lane = 0; lane < lanes; ++lane) {
            notices[lane] = std::make_shared<Notice>();
            notices[lane]->onFinish = [&, lane](const std::shared_ptr<IHttpHandleInterface>& h, int result) {
                if (result != 0) failures.fetch_add(1);
                if (h->GetResponse() != "hello netloop") wrong.fetch_add(1);
                frame->DelHttpReq(h, false, nullptr, nullptr);
                finished.fetch_add(1);
                launch(lane);
            };
        }
        for (int lane = 0; lane < lanes; ++lane) OnLoop(frame, [&] { launch(lane); });
        const bool done = WaitUntil([&] { return finished.load() == total; }, 120s);
        // The notices' lambdas refer to this frame of the stack, and the last
        // OnFinish may still be on its way out: they go on the loop thread,
        // behind it.
        OnLoop(frame, [&] {
            for (auto& n : notices) n->onFinish = nullptr;
        });
        ASSERT_TRUE(done) << finished.load();
    }
};

// A server that drops kept-alive connections under libcurl's feet: libcurl
// notices on reuse, and sockets it has closed itself are removed; the loop
// must survive all of it.
TEST(CurlBridge, ServerClosingKeptConnectionsNeverUpsetsTheLoop) {
    HttpTestServer server;
    server.SetCloseEveryNth(2);
    auto frame = StartFrame();
    const int total = Sanitized() ? 400 : 2000;
    ChainedGets gets;
    auto begin = std::chrono::steady_clock::now();
    gets.Run(frame, server.Url("/fixed"), 8, total);
    auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
    std::printf("%d transfers against a server closing every 2nd connection: %lld ms, %llu connections\n", total,
                static_cast<long long>(elapsed.count()), static_cast<unsigned long long>(server.ConnectionCount()));
    EXPECT_EQ(gets.failures.load(), 0);
    EXPECT_EQ(gets.wrong.load(), 0);
    EXPECT_GT(server.ConnectionCount(), static_cast<uint64_t>(total / 4));
    StopFrame(frame);
}

// The poll handles on a frame's loop, looked at on the loop thread: each one
// must watch an open socket of a connection to `serverPort`.
struct PollCensus {
    int handles = 0;       // poll handles that are not closing
    int active = 0;        // of those, the ones polling
    int onClosedFd = 0;    // watching a descriptor that is closed
    int notToServer = 0;   // watching a descriptor that is no client socket of the server's
};

PollCensus TakePollCensus(const std::shared_ptr<IHttpInterface>& frame, uint16_t serverPort) {
    return OnLoop(frame, [&] {
        struct Walk {
            PollCensus census;
            uint16_t port;
        } walk{{}, serverPort};
        uv_walk(Impl(frame)->m_Loop.get(), [](uv_handle_t* h, void* arg) {
            auto* w = static_cast<Walk*>(arg);
            if (h->type != UV_POLL || uv_is_closing(h)) return;
            ++w->census.handles;
            if (uv_is_active(h)) ++w->census.active;
            uv_os_fd_t fd = -1;
            uv_fileno(h, &fd);
            if (::fcntl(fd, F_GETFD) == -1) {
                ++w->census.onClosedFd;
                return;
            }
            sockaddr_storage peer{};
            socklen_t len = sizeof(peer);
            if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len) != 0 || peer.ss_family != AF_INET ||
                ntohs(reinterpret_cast<sockaddr_in*>(&peer)->sin_port) != w->port)
                ++w->census.notToServer;
        }, &walk);
        return walk.census;
    });
}

// libcurl removes a kept-alive connection's socket after every transfer. Its
// poll record stays (stopped) and serves the next transfer on the same
// connection: one record for the connection's whole life, and it goes when
// libcurl closes the socket.
TEST(CurlBridge, KeptAliveConnectionKeepsOneRecordForAllItsTransfers) {
    HttpTestServer server;
    const size_t fds = testsupport::OpenFdCount();
    auto frame = SpiedFrame(false);
    const int total = Sanitized() ? 2000 : 10000;
    ChainedGets gets;
    gets.Run(frame, server.Url("/fixed"), 1, total);
    EXPECT_EQ(gets.failures.load(), 0);
    EXPECT_EQ(gets.wrong.load(), 0);
    EXPECT_EQ(server.ConnectionCount(), 1u);

    // Between transfers: one record, not polling, on the connection's socket.
    PollCensus census = TakePollCensus(frame, server.Port());
    EXPECT_EQ(census.handles, 1);
    EXPECT_EQ(census.active, 0);
    EXPECT_EQ(census.onClosedFd, 0);
    EXPECT_EQ(census.notToServer, 0);
    StopFrame(frame);

    std::lock_guard<std::mutex> lock(g_SpyMutex);
    std::set<curl_socket_t> sockets;
    std::set<void*> records;
    size_t removes = 0;
    for (const SocketCall& call : g_SocketCalls) {
        sockets.insert(call.socket);
        if (call.socketp != nullptr) records.insert(call.socketp);
        removes += call.action == CURL_POLL_REMOVE;
    }
    EXPECT_EQ(sockets.size(), 1u);
    // libcurl removed the socket after many of the transfers (not all: a
    // transfer added from OnFinish can take the connection over first), and
    // the record stayed the same throughout.
    EXPECT_GT(removes, static_cast<size_t>(total / 10));
    EXPECT_EQ(records.size(), 1u);
    // The stop closed the connection and its record; nothing is left open.
    EXPECT_TRUE(WaitUntil([&] { return server.OpenConnections() == 0; }));
    EXPECT_EQ(testsupport::OpenFdCount(), fds);
}

// Connections that the server drops under load: a record kept for one of them
// goes when libcurl closes its socket, before the descriptor can be taken by
// the next socket, so no poll handle is ever left on a closed descriptor or on
// a descriptor that now belongs to something else.
TEST(CurlBridge, ConnectionsClosedUnderLoadTakeTheirRecordsAlong) {
    HttpTestServer server;
    server.SetCloseEveryNth(2);
    const size_t fds = testsupport::OpenFdCount();
    auto frame = StartFrame();
    const int lanes = 8;
    const int rounds = Sanitized() ? 2 : 5;
    const int perRound = Sanitized() ? 200 : 1000;
    for (int round = 0; round < rounds; ++round) {
        SCOPED_TRACE(round);
        ChainedGets gets;
        gets.Run(frame, server.Url("/fixed"), lanes, perRound);
        EXPECT_EQ(gets.failures.load(), 0);
        EXPECT_EQ(gets.wrong.load(), 0);
        PollCensus census = TakePollCensus(frame, server.Port());
        EXPECT_EQ(census.onClosedFd, 0);
        EXPECT_EQ(census.notToServer, 0);
        EXPECT_EQ(census.active, 0);
        EXPECT_LE(census.handles, lanes);
    }
    EXPECT_GT(server.ConnectionCount(), static_cast<uint64_t>(rounds * perRound / 4));
    StopFrame(frame);
    EXPECT_TRUE(WaitUntil([&] { return server.OpenConnections() == 0; }));
    EXPECT_EQ(testsupport::OpenFdCount(), fds);
}

// HTTPS connections still in libcurl's cache at the stop are closed by
// curl_multi_cleanup after the loop has ended: nothing may leak or touch a
// freed loop, with and without a share holding the cache.
TEST(CurlBridge, KeptHttpsConnectionsAtStopLeaveNothingBehind) {
    HttpTestServer::Options options;
    options.tls = true;
    HttpTestServer server(options);
    const std::string ca = testsupport::TestTls().caFile;
    {
        auto warm = StartFrame(true);
        RunTransfer(warm, server.Url("/fixed"), HTTP_REQ_GET, [&](IHttpHandleInterface& h) { h.SetCaPath(ca.c_str()); });
        StopFrame(warm);
    }
    // How libcurl closes its cache is timing-dependent; over a few rounds the
    // cleanup without a share reliably calls back after the loop has ended.
    size_t afterLoop[2] = {0, 0};
    for (int round = 0; round < 3; ++round) {
        for (bool share : {false, true}) {
            SCOPED_TRACE(std::string(share ? "share" : "no share") + " round " + std::to_string(round));
            // The server's side of a connection counts in this process too.
            ASSERT_TRUE(WaitUntil([&] { return server.OpenConnections() == 0; }));
            const size_t fds = testsupport::OpenFdCount();
            const size_t threads = testsupport::ThreadCount();
            auto frame = SpiedFrame(share);
            // Four at once keep four connections open in the cache.
            std::vector<std::shared_ptr<IHttpHandleInterface>> handles;
            auto notice = std::make_shared<Notice>();
            for (int i = 0; i < 4; ++i) {
                auto h = IHttpHandleInterface::Create();
                ASSERT_EQ(h->InitHttpReq(server.Url("/delay/50").c_str(), nullptr, HTTP_REQ_GET, notice, 5000, 10000,
                                         nullptr), 0);
                ASSERT_EQ(h->SetCaPath(ca.c_str()), 0);
                ASSERT_EQ(frame->AddHttpReq(h, false, nullptr, nullptr), 0);
                handles.push_back(h);
            }
            ASSERT_TRUE(notice->WaitFinishes(4));
            for (auto& f : notice->Finishes()) EXPECT_EQ(f.result, 0);
            for (auto& h : handles) EXPECT_EQ(Delete(frame, h), 0);
            EXPECT_EQ(server.OpenConnections(), 4);
            StopFrame(frame);
            EXPECT_TRUE(WaitUntil([&] { return server.OpenConnections() == 0; }));
            EXPECT_EQ(testsupport::OpenFdCount(), fds);
            EXPECT_EQ(testsupport::ThreadCount(), threads);
            std::lock_guard<std::mutex> lock(g_SpyMutex);
            for (const SocketCall& call : g_SocketCalls)
                if (call.frameState == FrameClosing) ++afterLoop[share];
        }
    }
    EXPECT_GT(afterLoop[0], 0u);
}

}  // namespace
