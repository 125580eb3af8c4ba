// Many GETs through a netloop frame with a fixed number in flight. Each request
// is a new handle; the next one is armed and added from OnFinish on the loop
// thread, right after the finished one is deleted.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include "common/BenchUtil.h"
#include "netloop/IHttpInterface.h"

namespace bench {

struct GetTally {
    uint64_t ok = 0;
    uint64_t bad = 0;
};

struct GetOptions {
    std::string url;
    size_t bodySize = 100;              // expected response body size
    std::string caPath;                 // SetCaPath when not empty
    std::list<std::string> headers;     // SetHeaders when not empty
    // Add the finished handle again, with its easy handle and options, instead
    // of deleting it and making a new one. Its body text keeps growing (the
    // handle appends each body to the last), so only its length is checked.
    bool reuseHandles = false;
};

class NetloopGets : public netloop::IHttpHandleNotic, public std::enable_shared_from_this<NetloopGets> {
public:
    NetloopGets(std::shared_ptr<netloop::IHttpInterface> frame, GetOptions options)
        : m_Frame(std::move(frame)), m_Options(std::move(options)) {}

    // Runs `n` transfers, `concurrency` at a time; false on time-out.
    bool Run(uint64_t n, int concurrency, double limitSeconds) {
        m_Total = n;
        m_Claimed = 0;
        m_Done.Reset(n);
        for (int i = 0; i < concurrency; ++i)
            if (m_Claimed.fetch_add(1) < n) Launch(true);
        return m_Done.Wait(limitSeconds);
    }
    GetTally Counts() const { return GetTally{m_Ok.load(), m_Bad.load()}; }

    void OnFinish(std::shared_ptr<netloop::IHttpHandleInterface> handle, int result, void*) override {
        const size_t size = handle->GetResponse().size();
        const bool sized = m_Options.reuseHandles ? size != 0 && size % m_Options.bodySize == 0
                                                  : size == m_Options.bodySize;
        const bool good = result == 0 && handle->GetResponseCode() == 200 && sized;
        (good ? m_Ok : m_Bad).fetch_add(1);
        const bool more = m_Claimed.fetch_add(1) < m_Total;
        if (more && m_Options.reuseHandles) {
            if (m_Frame->AddHttpReq(handle, false, nullptr, nullptr) != 0) m_Bad.fetch_add(1);
        } else {
            m_Frame->DelHttpReq(handle, false, nullptr, nullptr);
            if (more) Launch(false);
        }
        m_Done.Add(1);
    }
    void OnWsData(const char*, size_t, int, void*) override {}
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override {}
    size_t OnUploadRead(std::shared_ptr<netloop::IHttpHandleInterface>, char*, size_t, size_t, void*) override {
        return 0;
    }

private:
    void Launch(bool fromApplication) {
        auto handle = netloop::IHttpHandleInterface::Create();
        bool ok = handle->InitHttpReq(m_Options.url.c_str(), nullptr, netloop::HTTP_REQ_GET, shared_from_this(), 0,
                                      0, nullptr) == 0;
        if (ok && !m_Options.caPath.empty()) ok = handle->SetCaPath(m_Options.caPath.c_str()) == 0;
        if (ok && !m_Options.headers.empty()) ok = handle->SetHeaders(m_Options.headers) == 0;
        if (ok) ok = m_Frame->AddHttpReq(handle, fromApplication, nullptr, nullptr) == 0;
        if (!ok) {
            m_Bad.fetch_add(1);
            m_Done.Add(1);
        }
    }

    std::shared_ptr<netloop::IHttpInterface> m_Frame;
    GetOptions m_Options;
    uint64_t m_Total = 0;
    std::atomic<uint64_t> m_Claimed{0};
    std::atomic<uint64_t> m_Ok{0}, m_Bad{0};
    Countdown m_Done;
};

// Warm-up, then rounds of `n` timed transfers until `minSeconds` have passed
// (at least one round); prints the result line. Works with any runner that has
// Run(n, concurrency, limit) and Counts(). `describe`, when given, may add extra
// fields before the line is printed.
template <typename Runner>
int MeasureGets(Result& res, Runner& runner, uint64_t warmup, uint64_t n, int concurrency, double limit,
                double minSeconds, const std::function<void()>& describe = nullptr) {
    if (warmup > 0 && !runner.Run(warmup, concurrency, limit)) return res.Fail("warm-up did not finish");
    CostMeter cost;
    cost.Start();
    const double t0 = Now();
    uint64_t done = 0;
    do {
        if (!runner.Run(n, concurrency, limit)) return res.Fail("transfers did not finish in time");
        done += n;
    } while (Now() - t0 < minSeconds);
    const double elapsed = Now() - t0;
    auto counts = runner.Counts();
    if (counts.bad != 0) return res.Fail(std::to_string(counts.bad) + " transfers failed");
    res.Extra("transfers", static_cast<double>(done)).Extra("seconds", elapsed);
    cost.Report(res, static_cast<double>(done), "request");
    if (describe) describe();
    return res.Print(static_cast<double>(done) / elapsed, "req/s");
}

}  // namespace bench
