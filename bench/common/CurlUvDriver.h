// Plain libcurl's multi-socket interface on a libuv loop: one uv_poll_t per
// socket and one uv_timer_t, the shape of libcurl's own multi-uv example. The
// baselines that run libcurl the way an event-loop application would are
// built on it. The owner adds easy handles to Multi() and takes finished
// transfers out with curl_multi_info_read from `afterAction`, which runs after
// every curl_multi_socket_action. Everything runs on the thread calling RunOnce.
#pragma once

#include <curl/curl.h>
#include <uv.h>

#include <cstdint>
#include <functional>
#include <utility>

#include "common/BenchUtil.h"

namespace bench {

class CurlUvDriver {
public:
    explicit CurlUvDriver(std::function<void()> afterAction) : m_AfterAction(std::move(afterAction)) {
        uv_loop_init(&m_Loop);
        uv_timer_init(&m_Loop, &m_Timeout);
        m_Timeout.data = this;
        m_Multi = curl_multi_init();
        curl_multi_setopt(m_Multi, CURLMOPT_SOCKETFUNCTION, &CurlUvDriver::HandleSocket);
        curl_multi_setopt(m_Multi, CURLMOPT_SOCKETDATA, this);
        curl_multi_setopt(m_Multi, CURLMOPT_TIMERFUNCTION, &CurlUvDriver::StartTimeout);
        curl_multi_setopt(m_Multi, CURLMOPT_TIMERDATA, this);
    }
    ~CurlUvDriver() {
        curl_multi_cleanup(m_Multi);
        uv_close(reinterpret_cast<uv_handle_t*>(&m_Timeout), nullptr);
        uv_run(&m_Loop, UV_RUN_DEFAULT);
        uv_loop_close(&m_Loop);
    }
    CurlUvDriver(const CurlUvDriver&) = delete;
    CurlUvDriver& operator=(const CurlUvDriver&) = delete;

    CURLM* Multi() const { return m_Multi; }
    // Runs passes of the loop until `done` holds (true) or `limitSeconds` have
    // gone by (false).
    bool RunUntil(const std::function<bool()>& done, double limitSeconds) {
        const double deadline = Now() + limitSeconds;
        while (!done()) {
            uv_run(&m_Loop, UV_RUN_ONCE);
            if (Now() > deadline) return false;
        }
        return true;
    }

private:
    struct SocketContext {
        uv_poll_t poll;
        curl_socket_t socket;
        CurlUvDriver* owner;
    };

    static int HandleSocket(CURL*, curl_socket_t s, int action, void* userp, void* socketp) {
        auto* self = static_cast<CurlUvDriver*>(userp);
        auto* ctx = static_cast<SocketContext*>(socketp);
        if (action == CURL_POLL_IN || action == CURL_POLL_OUT || action == CURL_POLL_INOUT) {
            if (ctx == nullptr) {
                ctx = new SocketContext;
                ctx->socket = s;
                ctx->owner = self;
                uv_poll_init_socket(&self->m_Loop, &ctx->poll, s);
                ctx->poll.data = ctx;
                curl_multi_assign(self->m_Multi, s, ctx);
            }
            int events = 0;
            if (action != CURL_POLL_OUT) events |= UV_READABLE;
            if (action != CURL_POLL_IN) events |= UV_WRITABLE;
            uv_poll_start(&ctx->poll, events, &CurlUvDriver::OnPoll);
        } else if (action == CURL_POLL_REMOVE && ctx != nullptr) {
            uv_poll_stop(&ctx->poll);
            uv_close(reinterpret_cast<uv_handle_t*>(&ctx->poll),
                     [](uv_handle_t* h) { delete static_cast<SocketContext*>(h->data); });
            curl_multi_assign(self->m_Multi, s, nullptr);
        }
        return 0;
    }

    static void OnPoll(uv_poll_t* poll, int, int events) {
        auto* ctx = static_cast<SocketContext*>(poll->data);
        int flags = 0;
        if (events & UV_READABLE) flags |= CURL_CSELECT_IN;
        if (events & UV_WRITABLE) flags |= CURL_CSELECT_OUT;
        ctx->owner->Action(ctx->socket, flags);
    }

    static int StartTimeout(CURLM*, long timeoutMs, void* userp) {
        auto* self = static_cast<CurlUvDriver*>(userp);
        if (timeoutMs < 0) {
            uv_timer_stop(&self->m_Timeout);
        } else {
            // 0 means "as soon as possible": a 0 ms libuv timer runs on the
            // loop's next pass. (libcurl's multi-uv example waits 1 ms instead,
            // which costs a millisecond per step when few transfers run.)
            uv_timer_start(&self->m_Timeout, &CurlUvDriver::OnTimeout, static_cast<uint64_t>(timeoutMs), 0);
        }
        return 0;
    }

    static void OnTimeout(uv_timer_t* timer) {
        static_cast<CurlUvDriver*>(timer->data)->Action(CURL_SOCKET_TIMEOUT, 0);
    }

    void Action(curl_socket_t socket, int flags) {
        int running = 0;
        curl_multi_socket_action(m_Multi, socket, flags, &running);
        m_AfterAction();
    }

    std::function<void()> m_AfterAction;
    uv_loop_t m_Loop;
    uv_timer_t m_Timeout;
    CURLM* m_Multi = nullptr;
};

}  // namespace bench
