// What goes into and comes out of a transfer, against loopback servers: POST
// bodies, uploads, output files, progress, TLS verification, HTTP/2, request
// headers, the verbose trace and the frame's share.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>

#include "HttpTestKit.h"
#include "support/CaptureLogger.h"
#include "support/FakeResolver.h"
#include "loopback/HttpTestServer.h"
#include "loopback/NginxServer.h"
#include "loopback/TempDir.h"
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

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string UploadAnswer(uint64_t size, const std::string& sha) {
    return "size=" + std::to_string(size) + " sha256=" + sha;
}

class TempDir {
public:
    TempDir() : m_Path(testsupport::MakeTempDir("netloop-bodies")) {}
    ~TempDir() { testsupport::RemoveTree(m_Path); }
    std::string operator/(const std::string& name) const { return m_Path + "/" + name; }

private:
    std::string m_Path;
};

TEST(HttpBodies, PostSendsTheLastBodyItWasGiven) {
    HttpTestServer server;
    auto frame = StartFrame();
    struct Case {
        const char* name;
        std::vector<const char*> bodies;  // SetPostFields calls in order; none: no body given
        std::string received;
    };
    const Case cases[] = {
        {"one body", {"a=1&b=two"}, "a=1&b=two"},
        {"the second replaces the first", {"first body, longer", "second"}, "second"},
        {"ends at the first NUL", {"text\0hidden"}, "text"},
        // No body given: the handle's own read callback answers, never
        // libcurl's default reading the user pointer as a FILE*.
        {"no body", {}, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Outcome out = RunTransfer(frame, server.Url("/echo"), HTTP_REQ_POST, [&](IHttpHandleInterface& h) {
            for (const char* body : c.bodies) EXPECT_EQ(h.SetPostFields(body), 0);
            EXPECT_EQ(h.SetPostFields(nullptr), -1);
        });
        EXPECT_EQ(out.result, 0);
        auto request = server.LastRequest();
        EXPECT_EQ(request.method, "POST");
        EXPECT_EQ(request.body, c.received);
        EXPECT_EQ(out.body.substr(out.body.size() - c.received.size()), c.received);
    }
    // Refused on the other kinds, leaving the stored text alone.
    for (int type : {HTTP_REQ_GET, HTTP_REQ_UPLOAD}) {
        auto handle = IHttpHandleInterface::Create();
        ASSERT_EQ(handle->InitHttpReq(server.Url("/echo").c_str(), nullptr, type, nullptr, 0, 0, nullptr), 0);
        EXPECT_EQ(handle->SetPostFields("x"), -1);
        std::string fields = "untouched";
        handle->GetPostFields(fields);
        EXPECT_EQ(fields, "");
        EXPECT_EQ(Delete(frame, handle), 0);
    }
    StopFrame(frame);
}

TEST(HttpBodies, UploadsComeFromOnUploadRead) {
    HttpTestServer server;
    auto frame = StartFrame();
    const uint64_t big = Sanitized() ? (32ull << 20) : (100ull << 20);
    // Odd piece sizes, none a divisor of libcurl's buffer.
    const size_t pieces[] = {1, 7, 4093, 65537, 333, 100003};
    struct Case {
        const char* name;
        bool notice;
        curl_off_t declared;  // SetUploadSize; -2: not called
        uint64_t produced;    // what OnUploadRead gives before it returns 0
        uint64_t received;
    };
    const Case cases[] = {
        {"large, in odd pieces", true, static_cast<curl_off_t>(big), big, big},
        {"unknown size ends when the source returns 0", true, -1, 100000, 100000},
        {"no size given at all", true, -2, 5000, 5000},
        {"no notice sends an empty body", false, -1, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::shared_ptr<Notice> notice;
        if (c.notice) {
            notice = std::make_shared<Notice>();
            auto sent = std::make_shared<uint64_t>(0);
            auto turn = std::make_shared<size_t>(0);
            notice->onUpload = [&, sent, turn](char* buffer, size_t room) -> size_t {
                size_t len = std::min<uint64_t>({room, pieces[(*turn)++ % 6], c.produced - *sent});
                testsupport::FillDeterministicBytes(*sent, buffer, len);
                *sent += len;
                return len;
            };
        }
        auto begin = std::chrono::steady_clock::now();
        auto handle = IHttpHandleInterface::Create();
        ASSERT_EQ(handle->InitHttpReq(server.Url("/upload").c_str(), nullptr, HTTP_REQ_UPLOAD, notice, 5000, 120000,
                                      nullptr), 0);
        if (c.declared != -2) {
            ASSERT_EQ(handle->SetUploadSize(c.declared), 0);
        }
        const uint64_t requestsBefore = server.RequestCount();
        ASSERT_EQ(frame->AddHttpReq(handle, false, nullptr, nullptr), 0);
        if (notice) {
            ASSERT_TRUE(notice->WaitFinishes(1, 120s));
            EXPECT_EQ(notice->Finishes()[0].result, 0);
        } else {
            ASSERT_TRUE(server.WaitForRequests(requestsBefore + 1, 10s));
            OnLoop(frame, [] {});
        }
        auto request = server.LastRequest();
        EXPECT_EQ(request.method, "PUT");
        EXPECT_EQ(request.bodySize, c.received);
        EXPECT_EQ(request.bodySha256, testsupport::DeterministicSha256(c.received));
        if (notice) {
            EXPECT_EQ(handle->GetResponse(), UploadAnswer(c.received, testsupport::DeterministicSha256(c.received)));
        }
        EXPECT_EQ(Delete(frame, handle), 0);
        if (c.received == big)
            std::printf("upload of %llu MiB: %lld ms\n", static_cast<unsigned long long>(big >> 20),
                        static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                   std::chrono::steady_clock::now() - begin)
                                                   .count()));
    }
    StopFrame(frame);
}

TEST(HttpBodies, OutputFilesTakeTheResponse) {
    ScopedCaptureLogger log;
    HttpTestServer server;
    TempDir dir;
    auto frame = StartFrame();
    const uint64_t big = 64ull << 20;

    // A large body into a file below folders that do not exist yet.
    const std::string deep = dir / "a/b/c/big.bin";
    auto handle = IHttpHandleInterface::Create();
    auto notice = std::make_shared<Notice>();
    ASSERT_EQ(handle->InitHttpReq(server.Url("/bytes/" + std::to_string(big)).c_str(), nullptr, HTTP_REQ_GET, notice,
                                  5000, 60000, nullptr), 0);
    ASSERT_EQ(handle->SetOutputFile(deep.c_str()), 0);
    ASSERT_EQ(frame->AddHttpReq(handle, false, nullptr, nullptr), 0);
    ASSERT_TRUE(notice->WaitFinishes(1, 60s));
    EXPECT_EQ(notice->Finishes()[0].result, 0);
    EXPECT_EQ(Delete(frame, handle), 0);  // closes the file
    EXPECT_EQ(testsupport::Sha256Hex(ReadFile(deep)), testsupport::DeterministicSha256(big));
    EXPECT_EQ(handle->GetResponse(), "");

    // One easy handle, two transfers, a new file for the second.
    const std::string first = dir / "first.txt", second = dir / "second.txt";
    notice = std::make_shared<Notice>();
    ASSERT_EQ(handle->InitHttpReq(server.Url("/fixed").c_str(), nullptr, HTTP_REQ_GET, notice, 5000, 10000, nullptr), 0);
    ASSERT_EQ(handle->SetOutputFile(first.c_str()), 0);
    ASSERT_EQ(frame->AddHttpReq(handle, false, nullptr, nullptr), 0);
    ASSERT_TRUE(notice->WaitFinishes(1));
    ASSERT_EQ(handle->SetOutputFile(second.c_str()), 0);
    ASSERT_EQ(frame->AddHttpReq(handle, false, nullptr, nullptr), 0);
    ASSERT_TRUE(notice->WaitFinishes(2));
    EXPECT_EQ(Delete(frame, handle), 0);
    EXPECT_EQ(ReadFile(first), "hello netloop");
    EXPECT_EQ(ReadFile(second), "hello netloop");
    EXPECT_EQ(handle->GetResponse(), "");

    // A path that cannot be opened: refused with its message, and the body
    // goes to memory.
    log->Clear();
    Outcome out = RunTransfer(frame, server.Url("/fixed"), HTTP_REQ_GET, [&](IHttpHandleInterface& h) {
        EXPECT_EQ(h.SetOutputFile("/proc/self/no/such/file"), -1);
    });
    EXPECT_TRUE(log->Has("[NETLOOP]Open file[/proc/self/no/such/file] failed", 60));
    EXPECT_EQ(out.body, "hello netloop");
    StopFrame(frame);
}

TEST(HttpBodies, ProgressComesWithTagAndUrlUntilTurnedOff) {
    HttpTestServer server;
    auto frame = StartFrame();
    const uint64_t size = 2u << 20;
    const std::string url = server.Url("/bytes/" + std::to_string(size));
    int user = 0;
    for (bool keepOn : {true, false}) {
        SCOPED_TRACE(keepOn ? "on" : "turned off again");
        auto notice = std::make_shared<Notice>();
        auto handle = IHttpHandleInterface::Create();
        ASSERT_EQ(handle->InitHttpReq(url.c_str(), "progress-tag", HTTP_REQ_GET, notice, 5000, 20000, &user), 0);
        ASSERT_EQ(handle->EnableProgress(true), 0);
        if (!keepOn) {
            ASSERT_EQ(handle->EnableProgress(false), 0);
        }
        ASSERT_EQ(frame->AddHttpReq(handle, false, nullptr, nullptr), 0);
        ASSERT_TRUE(notice->WaitFinishes(1));
        EXPECT_EQ(Delete(frame, handle), 0);
        auto calls = notice->Progress();
        if (!keepOn) {
            EXPECT_TRUE(calls.empty());
            continue;
        }
        ASSERT_FALSE(calls.empty());
        curl_off_t last = 0;
        for (const ProgressCall& call : calls) {
            EXPECT_EQ(call.tag, "progress-tag");
            EXPECT_EQ(call.url, url);
            EXPECT_EQ(call.userData, &user);
            EXPECT_GE(call.dlnow, last);
            last = call.dlnow;
        }
        EXPECT_EQ(last, static_cast<curl_off_t>(size));
        EXPECT_EQ(calls.back().dltotal, static_cast<curl_off_t>(size));
    }
    StopFrame(frame);
}

// ---------------------------------------------------------------------------
// TLS, headers, trace

TEST(HttpTls, VerificationFollowsSetCaPath) {
    HttpTestServer::Options options;
    options.tls = true;
    HttpTestServer server(options);
    const std::string ca = testsupport::TestTls().caFile;
    auto frame = StartFrame();
    struct Case {
        const char* name;
        int call;  // 0: no SetCaPath, 1: the CA file, 2: null
        int result;
    };
    for (const Case& c : {Case{"libcurl's own store does not know the server", 0, -2},
                          Case{"the test CA verifies it", 1, 0}, Case{"verification off", 2, 0}}) {
        SCOPED_TRACE(c.name);
        ScopedCaptureLogger log;
        Outcome out = RunTransfer(frame, server.Url("/fixed"), HTTP_REQ_GET, [&](IHttpHandleInterface& h) {
            if (c.call == 1) {
                EXPECT_EQ(h.SetCaPath(ca.c_str()), 0);
            }
            if (c.call == 2) {
                EXPECT_EQ(h.SetCaPath(nullptr), 0);
            }
        });
        EXPECT_EQ(out.result, c.result);
        EXPECT_EQ(out.body, c.result == 0 ? "hello netloop" : "");
        if (c.result != 0) {
            EXPECT_EQ(log->CountContaining(" DONE result[" + std::to_string(CURLE_PEER_FAILED_VERIFICATION) + ":", 60), 1u);
        }
    }
    StopFrame(frame);
}

TEST(HttpTls, Http2IsNegotiatedWithNginx) {
    if (!testsupport::NginxServer::Available()) GTEST_SKIP() << "nginx is not installed";
    testsupport::NginxServer nginx;
    const std::string ca = testsupport::TestTls().caFile;
    auto frame = StartFrame();
    struct Case {
        std::string url;
        const char* protocol;
    };
    for (const Case& c : {Case{nginx.TlsUrl("/small"), "HTTP/2.0"}, Case{nginx.Url("/small"), "HTTP/1.1"}}) {
        SCOPED_TRACE(c.url);
        ScopedCaptureLogger log;
        Outcome out = RunTransfer(frame, c.url, HTTP_REQ_GET, [&](IHttpHandleInterface& h) {
            EXPECT_EQ(h.SetCaPath(ca.c_str()), 0);
            EXPECT_EQ(h.EnableVerbose(), 0);
        });
        EXPECT_EQ(out.result, 0);
        EXPECT_EQ(out.body, testsupport::NginxServer::SmallBody());
        const bool h2 = std::string(c.protocol) == "HTTP/2.0";
        EXPECT_EQ(log->CountContaining("[NETLOOP][HEADER_IN]", 0) > 0, true);
        EXPECT_EQ(log->CountContaining("HTTP/2 200", 0) > 0, h2);
    }
    ASSERT_TRUE(nginx.WaitForAccessLogLines(2, 5s));
    auto entries = nginx.AccessLog();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].protocol, "HTTP/2.0");
    EXPECT_EQ(entries[1].protocol, "HTTP/1.1");
    StopFrame(frame);

    // With multiplexing, transfers added at once share HTTP/2 connections
    // (at most two to one host) and some are deleted while they run.
    frame = StartFrame(false, true);
    const int count = 60;
    auto notice = std::make_shared<Notice>();
    std::vector<std::shared_ptr<IHttpHandleInterface>> handles;
    for (int i = 0; i < count; ++i) {
        auto h = IHttpHandleInterface::Create();
        ASSERT_EQ(h->InitHttpReq(nginx.TlsUrl("/small").c_str(), nullptr, HTTP_REQ_GET, notice, 5000, 20000, nullptr), 0);
        ASSERT_EQ(h->SetCaPath(ca.c_str()), 0);
        ASSERT_EQ(frame->AddHttpReq(h, false, nullptr, nullptr), 0);
        handles.push_back(h);
    }
    for (int i = 0; i < count; i += 6) EXPECT_EQ(Delete(frame, handles[i]), 0);
    ASSERT_TRUE(WaitUntil([&] { return notice->Finishes().size() >= static_cast<size_t>(count - count / 6); }, 20s));
    for (int i = 0; i < count; ++i) {
        if (i % 6 != 0) {
            EXPECT_EQ(Delete(frame, handles[i]), 0);
        }
    }
    for (const FinishCall& f : notice->Finishes()) EXPECT_EQ(f.status, 200);
    StopFrame(frame);
    ASSERT_TRUE(nginx.WaitForAccessLogLines(2 + notice->Finishes().size(), 5s));
    std::set<uint64_t> connections;
    for (size_t i = 2; i < nginx.AccessLog().size(); ++i) {
        EXPECT_EQ(nginx.AccessLog()[i].protocol, "HTTP/2.0");
        connections.insert(nginx.AccessLog()[i].connection);
    }
    EXPECT_LE(connections.size(), 2u);
}

TEST(HttpHeaders, SentAsGivenAddedUpAndKeptAfterTeardown) {
    HttpTestServer server;
    auto frame = StartFrame();
    const std::list<std::string> headers{"X-One: 1", "X-Two: second value"};
    struct Case {
        const char* name;
        int calls;  // SetHeaders calls with the same list
        size_t each;
    };
    auto handle = IHttpHandleInterface::Create();
    for (const Case& c : {Case{"once", 1, 1}, Case{"twice on one easy handle", 2, 2}, Case{"re-armed, not set", 0, 0}}) {
        SCOPED_TRACE(c.name);
        auto notice = std::make_shared<Notice>();
        ASSERT_EQ(handle->InitHttpReq(server.Url("/echo-headers").c_str(), nullptr, HTTP_REQ_GET, notice, 5000, 10000,
                                      nullptr), 0);
        for (int i = 0; i < c.calls; ++i) ASSERT_EQ(handle->SetHeaders(headers), 0);
        ASSERT_EQ(frame->AddHttpReq(handle, false, nullptr, nullptr), 0);
        ASSERT_TRUE(notice->WaitFinishes(1));
        EXPECT_EQ(Delete(frame, handle), 0);
        auto request = server.LastRequest();
        size_t ones = 0, twos = 0;
        for (const auto& [name, value] : request.headers) {
            if (name == "X-One" && value == "1") ++ones;
            if (name == "X-Two" && value == "second value") ++twos;
        }
        EXPECT_EQ(ones, c.each);
        EXPECT_EQ(twos, c.each);
        std::list<std::string> kept;
        handle->GetHeaders(kept);
        EXPECT_EQ(kept, headers);  // the last list given, after teardown too
    }
    StopFrame(frame);
}

TEST(HttpTrace, EveryKindOfTraceLineAtLevelZero) {
    HttpTestServer::Options options;
    options.tls = true;
    HttpTestServer server(options);
    auto frame = StartFrame();
    ScopedCaptureLogger log;
    Outcome out = RunTransfer(frame, server.Url("/echo"), HTTP_REQ_POST, [&](IHttpHandleInterface& h) {
        EXPECT_EQ(h.SetCaPath(testsupport::TestTls().caFile.c_str()), 0);
        EXPECT_EQ(h.SetPostFields("trace=body"), 0);
        EXPECT_EQ(h.EnableVerbose(), 0);
    });
    ASSERT_EQ(out.result, 0);
    // Each kind, its exact shape, and the size in brackets matching the text
    // where the text cannot hold a NUL.
    const std::regex shapes[] = {
        std::regex(R"(\[NETLOOP\]\[TEXT\]\[(\d+)\]([^]*))"),
        std::regex(R"(\[NETLOOP\]\[HEADER_IN\]\[(\d+)\]([^]*))"),
        std::regex(R"(\[NETLOOP\]\[HEADER_OUT\]\[(\d+)\] \[0x[0-9a-f]+\] ([^]*))"),
        std::regex(R"(\[NETLOOP\]\[DATA_IN\]\[(\d+)\]([^]*))"),
        std::regex(R"(\[NETLOOP\]\[DATA_OUT\]\[(\d+)\]([^]*))"),
        std::regex(R"(\[NETLOOP\]\[SSL_DATA_IN\]\[(\d+)\][^]*)"),
        std::regex(R"(\[NETLOOP\]\[SSL_DATA_OUT\]\[(\d+)\][^]*)"),
    };
    size_t seen[7] = {};
    for (const auto& line : log->Lines()) {
        for (int kind = 0; kind < 7; ++kind) {
            std::smatch m;
            if (!std::regex_match(line.text, m, shapes[kind])) continue;
            ++seen[kind];
            EXPECT_EQ(line.level, 0) << line.text;
            if (kind < 5) {
                EXPECT_EQ(std::stoul(m[1]), m[2].length()) << line.text;
            }
        }
    }
    for (int kind = 0; kind < 7; ++kind) EXPECT_GT(seen[kind], 0u) << "kind " << kind;
    EXPECT_TRUE(log->Has("[NETLOOP][DATA_OUT][10]trace=body", 0));
    EXPECT_GT(log->CountContaining("[NETLOOP][HEADER_OUT]", 0), 0u);
    EXPECT_GT(log->CountContaining("POST /echo HTTP/1.1\r\n", 0), 0u);

    // Straight into the callback: a NUL cuts the text but not the count, and
    // kinds libcurl may add later write nothing.
    auto handle = std::static_pointer_cast<CHttpHandle>(IHttpHandleInterface::Create());
    std::shared_ptr<CHttpHandle> holder = handle;
    char data[] = {'a', 'b', '\0', 'c', 'd'};
    log->Clear();
    EXPECT_EQ(CHttpHandle::CurlDebugCallback(nullptr, CURLINFO_DATA_IN, data, sizeof(data), &holder), 0);
    EXPECT_EQ(CHttpHandle::CurlDebugCallback(nullptr, CURLINFO_END, data, sizeof(data), &holder), 0);
    EXPECT_EQ(CHttpHandle::CurlDebugCallback(nullptr, CURLINFO_TEXT, data, sizeof(data), nullptr), 0);
    auto lines = log->Lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "[NETLOOP][DATA_IN][5]ab");
    StopFrame(frame);
}

// ---------------------------------------------------------------------------
// The share

struct LockCounts {
    std::mutex mutex;
    std::map<int, long> held;  // lock minus unlock, per kind
    std::map<int, long> locks;
};
LockCounts g_Locks;

void SpyLock(CURL* handle, curl_lock_data data, curl_lock_access access, void* userptr) {
    CHttpFrame::OnShareLock(handle, data, access, userptr);
    std::lock_guard<std::mutex> lock(g_Locks.mutex);
    ++g_Locks.held[data];
    ++g_Locks.locks[data];
}

void SpyUnlock(CURL* handle, curl_lock_data data, void* userptr) {
    {
        std::lock_guard<std::mutex> lock(g_Locks.mutex);
        --g_Locks.held[data];
    }
    CHttpFrame::OnShareUnLock(handle, data, userptr);
}

TEST(HttpShare, TransfersShareConnectionsCookiesDnsAndSessions) {
    // No address pin: names go through libcurl's resolver and its cache.
    auto fake = std::make_shared<FakeResolver>();
    ScopedResolver scoped(fake);
    for (bool share : {true, false}) {
        SCOPED_TRACE(share ? "share" : "no share");
        HttpTestServer server;
        auto frame = IHttpInterface::Create();
        ASSERT_EQ(frame->Init(nullptr, false, share, nullptr), 0);
        auto impl = Impl(frame);
        EXPECT_EQ(impl->m_Share != nullptr, share);
        if (share) {
            ASSERT_EQ(curl_share_setopt(impl->m_Share, CURLSHOPT_LOCKFUNC, &SpyLock), CURLSHE_OK);
            ASSERT_EQ(curl_share_setopt(impl->m_Share, CURLSHOPT_UNLOCKFUNC, &SpyUnlock), CURLSHE_OK);
        }
        ASSERT_EQ(frame->Start(true), 0);

        const std::string base = "http://localhost:" + std::to_string(server.Port());
        for (int i = 0; i < 100; ++i) ASSERT_EQ(RunTransfer(frame, base + "/fixed").body, "hello netloop") << i;
        EXPECT_EQ(server.ConnectionCount(), 1u);

        EXPECT_EQ(RunTransfer(frame, base + "/cookie/set?name=flavour&value=oat").result, 0);
        EXPECT_EQ(RunTransfer(frame, base + "/cookie/echo").body, share ? "flavour=oat" : "");
        // One easy handle added twice keeps its place in the share; on new
        // connections the name libcurl resolved first is found in the cache.
        server.SetCloseEveryNth(1);
        ScopedCaptureLogger log;
        auto notice = std::make_shared<Notice>();
        auto handle = IHttpHandleInterface::Create();
        ASSERT_EQ(handle->InitHttpReq((base + "/cookie/echo").c_str(), nullptr, HTTP_REQ_GET, notice, 5000, 10000,
                                      nullptr), 0);
        ASSERT_EQ(handle->EnableVerbose(), 0);
        for (size_t round = 1; round <= 2; ++round) {
            ASSERT_EQ(frame->AddHttpReq(handle, false, nullptr, nullptr), 0);
            ASSERT_TRUE(notice->WaitFinishes(round));
        }
        EXPECT_EQ(Delete(frame, handle), 0);
        EXPECT_EQ(handle->GetResponse(), share ? "flavour=oatflavour=oat" : "");
        EXPECT_GE(log->CountContaining("]Hostname localhost was found in DNS cache", 0), 1u);
        StopFrame(frame);
    }
    std::lock_guard<std::mutex> lock(g_Locks.mutex);
    for (const auto& [kind, held] : g_Locks.held) EXPECT_EQ(held, 0) << "kind " << kind;
    for (curl_lock_data kind : {CURL_LOCK_DATA_SHARE, CURL_LOCK_DATA_COOKIE, CURL_LOCK_DATA_DNS, CURL_LOCK_DATA_CONNECT})
        EXPECT_GT(g_Locks.locks[kind], 0) << "kind " << kind;
}

TEST(HttpShare, SecondHttpsConnectionResumesTheSharedSession) {
    HttpTestServer::Options options;
    options.tls = true;
    HttpTestServer server(options);
    server.SetCloseEveryNth(1);  // every transfer needs a new connection
    auto frame = StartFrame(true);
    ScopedCaptureLogger log;
    for (int i = 0; i < 2; ++i) {
        Outcome out = RunTransfer(frame, server.Url("/fixed"), HTTP_REQ_GET, [&](IHttpHandleInterface& h) {
            EXPECT_EQ(h.SetCaPath(testsupport::TestTls().caFile.c_str()), 0);
            EXPECT_EQ(h.EnableVerbose(), 0);
        });
        EXPECT_EQ(out.body, "hello netloop");
    }
    EXPECT_EQ(server.ConnectionCount(), 2u);
    EXPECT_GT(log->CountContaining("reusing session", 0), 0u);
    StopFrame(frame);
}

}  // namespace
