// Checks that the loopback test servers behave as their headers promise, using
// plain libcurl (easy interface, curl_ws_*) and plain sockets as clients.
#include <arpa/inet.h>
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "loopback/HttpTestServer.h"
#include "loopback/NginxServer.h"
#include "loopback/TestData.h"
#include "loopback/TestTls.h"
#include "loopback/UdpEchoPeer.h"
#include "loopback/WsTestServer.h"
#include "loopback/detail/RecordLog.h"

namespace {

using namespace testsupport;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

// ---------------------------------------------------------------- test data

TEST(TestDataTest, SlicesAgreeWithTheWholeStream) {
    // Every comparison in the server tests relies on these agreeing, across
    // the generator's internal block boundaries in particular.
    const std::string whole = DeterministicBytes(3 * 4096 + 17);
    const std::string text = DeterministicText(whole.size());
    for (uint64_t offset : {0, 1, 4095, 4096, 4097, 8190}) {
        for (uint64_t n : {0, 1, 2, 4096, 4100}) {
            SCOPED_TRACE(std::to_string(offset) + "+" + std::to_string(n));
            EXPECT_EQ(DeterministicBytes(n, offset), whole.substr(offset, n));
            EXPECT_EQ(DeterministicText(n, offset), text.substr(offset, n));
            if (n > 0) {
                EXPECT_EQ(DeterministicByte(offset + n - 1), whole[offset + n - 1]);
                EXPECT_EQ(DeterministicTextByte(offset + n - 1), text[offset + n - 1]);
            }
        }
    }
    EXPECT_NE(whole.substr(0, 4096), whole.substr(4096, 4096));
    EXPECT_EQ(text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"),
              std::string::npos);
    std::string big = DeterministicBytes(1 << 16);
    std::vector<bool> seen(256);
    for (char c : big) seen[static_cast<uint8_t>(c)] = true;
    EXPECT_EQ(std::count(seen.begin(), seen.end(), true), 256);
    EXPECT_EQ(DeterministicSha256((3 << 20) + 5), Sha256Hex(DeterministicBytes((3 << 20) + 5)));
    EXPECT_EQ(Sha256Hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(RecordLogTest, KeepsNewestRecordsAndBoundsPayloads) {
    struct Rec {
        int id;
        std::string payload;
        bool kept = true;
    };
    // At most 3 records and 10 payload bytes: the oldest payloads go first.
    detail::RecordLog<Rec> log(3, 10, &Rec::payload, &Rec::kept);
    auto state = [&log] {
        std::string out;
        for (const Rec& r : log.Items()) out += std::to_string(r.id) + (r.kept ? "=" + r.payload : "-") + " ";
        return out;
    };
    log.Add({1, "aaaa"});
    log.Add({2, "bbbb"});
    EXPECT_EQ(state(), "1=aaaa 2=bbbb ");
    log.Add({3, "cccc"});
    EXPECT_EQ(state(), "1- 2=bbbb 3=cccc ");
    log.Add({4, "dd"});
    EXPECT_EQ(state(), "2=bbbb 3=cccc 4=dd ");
    log.Add({5, "eeeeeeee"});
    EXPECT_EQ(state(), "3- 4=dd 5=eeeeeeee ");
    log.Add({6, ""});
    log.Add({7, ""});
    EXPECT_EQ(state(), "5=eeeeeeee 6= 7= ");
    log.Clear();
    log.Add({8, "0123456789"});
    EXPECT_EQ(state(), "8=0123456789 ");
}

// ---------------------------------------------------------------- HTTP client

struct Call {
    std::string method = "GET";
    std::string body = "";
    bool chunked = false;  // send the body without a length
    std::vector<std::string> headers = {};
    std::string caFile = TestTls().caFile;  // "" = the system's default trust store
    long timeoutMs = 10000;
    long httpVersion = CURL_HTTP_VERSION_1_1;
    long sslVersion = CURL_SSLVERSION_DEFAULT;
};

struct Reply {
    CURLcode code = CURLE_OK;
    long status = 0;
    long httpVersion = 0;
    std::string body = "";
    std::string headers;  // raw header block(s)
    double seconds = 0;

    // Last value of header `name` (case-insensitive), "" if absent.
    std::string Header(const std::string& name) const {
        std::string value;
        size_t pos = 0;
        while (pos < headers.size()) {
            size_t end = headers.find("\r\n", pos);
            if (end == std::string::npos) end = headers.size();
            std::string line = headers.substr(pos, end - pos);
            if (line.size() > name.size() && line[name.size()] == ':' &&
                strncasecmp(line.c_str(), name.c_str(), name.size()) == 0) {
                value = line.substr(name.size() + 1);
                while (!value.empty() && value[0] == ' ') value.erase(0, 1);
            }
            pos = end + 2;
        }
        return value;
    }
};

// One easy handle per client, so consecutive calls reuse its connection.
class HttpClient {
public:
    HttpClient() : m_Easy(curl_easy_init()) { curl_easy_setopt(m_Easy, CURLOPT_COOKIEFILE, ""); }
    ~HttpClient() { curl_easy_cleanup(m_Easy); }

    Reply Perform(const std::string& url, const Call& call = {}) {
        CURL* e = m_Easy;
        curl_easy_reset(e);
        curl_easy_setopt(e, CURLOPT_COOKIEFILE, "");  // keep the cookie engine on
        Reply reply;
        struct Upload {
            const std::string* data;
            size_t offset;
        } upload{&call.body, 0};
        curl_easy_setopt(e, CURLOPT_URL, url.c_str());
        curl_easy_setopt(e, CURLOPT_TIMEOUT_MS, call.timeoutMs);
        curl_easy_setopt(e, CURLOPT_HTTP_VERSION, call.httpVersion);
        curl_easy_setopt(e, CURLOPT_SSLVERSION, call.sslVersion);
        curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
        if (!call.caFile.empty()) curl_easy_setopt(e, CURLOPT_CAINFO, call.caFile.c_str());
        curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, +[](char* p, size_t s, size_t n, void* u) {
            static_cast<std::string*>(u)->append(p, s * n);
            return s * n;
        });
        curl_easy_setopt(e, CURLOPT_WRITEDATA, &reply.body);
        curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, +[](char* p, size_t s, size_t n, void* u) {
            static_cast<std::string*>(u)->append(p, s * n);
            return s * n;
        });
        curl_easy_setopt(e, CURLOPT_HEADERDATA, &reply.headers);
        curl_slist* headers = nullptr;
        for (const auto& h : call.headers) headers = curl_slist_append(headers, h.c_str());
        if (call.method == "HEAD") {
            curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
        } else if (!call.body.empty() || call.chunked) {
            curl_easy_setopt(e, CURLOPT_UPLOAD, 1L);
            if (call.method != "PUT") curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, call.method.c_str());
            curl_easy_setopt(e, CURLOPT_READFUNCTION, +[](char* p, size_t s, size_t n, void* u) {
                auto* up = static_cast<Upload*>(u);
                size_t k = std::min(s * n, up->data->size() - up->offset);
                up->data->copy(p, k, up->offset);
                up->offset += k;
                return k;
            });
            curl_easy_setopt(e, CURLOPT_READDATA, &upload);
            if (call.chunked)
                headers = curl_slist_append(headers, "Transfer-Encoding: chunked");
            else
                curl_easy_setopt(e, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(call.body.size()));
        } else if (call.method != "GET") {
            curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, call.method.c_str());
        }
        curl_easy_setopt(e, CURLOPT_HTTPHEADER, headers);
        auto start = Clock::now();
        reply.code = curl_easy_perform(e);
        reply.seconds = SecondsSince(start);
        curl_easy_getinfo(e, CURLINFO_RESPONSE_CODE, &reply.status);
        curl_easy_getinfo(e, CURLINFO_HTTP_VERSION, &reply.httpVersion);
        curl_easy_setopt(e, CURLOPT_HTTPHEADER, nullptr);
        curl_slist_free_all(headers);
        return reply;
    }

private:
    CURL* m_Easy;
};

Reply Fetch(const std::string& url, const Call& call = {}) { return HttpClient().Perform(url, call); }

// ---------------------------------------------------------------- HTTP server

struct RouteCase {
    const char* name;
    Call call;
    std::string target;
    long status;
    std::function<void(const Reply&, const HttpTestServer&)> check;
};

TEST(HttpTestServerTest, EveryRouteAnswers) {
    const std::string upload = DeterministicBytes((2 << 20) + 3);
    const std::string bytes = DeterministicBytes(3 << 20);
    auto body = [](std::string expected) {
        return [expected](const Reply& r, const HttpTestServer&) { EXPECT_EQ(r.body, expected); };
    };
    auto uploaded = [&upload](bool chunked) {
        return [&upload, chunked](const Reply& r, const HttpTestServer& s) {
            EXPECT_EQ(r.body, "size=" + std::to_string(upload.size()) + " sha256=" + Sha256Hex(upload));
            RecordedRequest rec = s.LastRequest();
            EXPECT_EQ(rec.bodySize, upload.size());
            EXPECT_EQ(rec.bodySha256, Sha256Hex(upload));
            EXPECT_FALSE(rec.bodyKept);
            EXPECT_EQ(rec.chunked, chunked);
            // curl asks before sending big bodies; the server says go ahead
            // rather than letting curl wait out its 1 s timeout.
            EXPECT_NE(r.headers.find("HTTP/1.1 100 Continue\r\n"), std::string::npos);
        };
    };
    std::vector<RouteCase> cases = {
        {"fixed", {}, "/fixed", 200, body("hello netloop")},
        {"fixed size", {}, "/fixed?size=5", 200, body("xxxxx")},
        {"status", {}, "/status/418", 418, body("status 418\n")},
        {"status without body", {}, "/status/204", 204, body("")},
        {"status with location", {}, "/status/302?location=/fixed", 302,
         [](const Reply& r, const HttpTestServer&) { EXPECT_EQ(r.Header("Location"), "/fixed"); }},
        {"unknown path", {}, "/no/such/thing", 404, body("not found\n")},
        {"delay", {}, "/delay/150", 200,
         [](const Reply& r, const HttpTestServer&) {
             EXPECT_EQ(r.body, "delayed 150\n");
             EXPECT_GE(r.seconds, 0.15);
         }},
        {"chunked", {}, "/chunked?parts=3&size=1000", 200,
         [](const Reply& r, const HttpTestServer&) {
             EXPECT_EQ(r.body, DeterministicBytes(3000));
             EXPECT_EQ(r.Header("Transfer-Encoding"), "chunked");
             EXPECT_EQ(r.Header("Content-Length"), "");
         }},
        {"bytes", {}, "/bytes/3145728", 200,
         [&bytes](const Reply& r, const HttpTestServer&) { EXPECT_TRUE(r.body == bytes) << r.body.size(); }},
        {"bytes head", {"HEAD"}, "/bytes/100", 200,
         [](const Reply& r, const HttpTestServer&) {
             EXPECT_EQ(r.Header("Content-Length"), "100");
             EXPECT_EQ(r.body, "");
         }},
        {"echo", {"POST", "abc", false, {"X-Test: yes"}}, "/echo?q=1", 200,
         [](const Reply& r, const HttpTestServer& s) {
             RecordedRequest rec = s.LastRequest();
             std::string expected = "POST /echo?q=1\n";
             for (const auto& [n, v] : rec.headers) expected += n + ": " + v + "\n";
             EXPECT_EQ(r.body, expected + "\nabc");
             EXPECT_EQ(rec.Header("x-test"), "yes");
             EXPECT_EQ(rec.body, "abc");
         }},
        {"echo headers", {"DELETE"}, "/echo-headers", 200,
         [](const Reply& r, const HttpTestServer& s) {
             EXPECT_EQ(r.body.rfind("DELETE /echo-headers\nHost: ", 0), 0u) << r.body;
             EXPECT_EQ(r.body.substr(r.body.size() - 2), "\n\n");
             EXPECT_EQ(s.LastRequest().method, "DELETE");
         }},
        {"upload with length", {"PUT", upload}, "/upload", 200, uploaded(false)},
        {"upload chunked", {"POST", upload, true}, "/upload", 200, uploaded(true)},
        {"upload wrong method", {}, "/upload", 405, body("use PUT or POST\n")},
        {"drip", {}, "/drip?bytes=4&interval=50", 200,
         [](const Reply& r, const HttpTestServer&) {
             EXPECT_EQ(r.body, DeterministicBytes(4));
             EXPECT_GE(r.seconds, 0.2);
         }},
        {"close", {}, "/close", 200,
         [](const Reply& r, const HttpTestServer&) { EXPECT_EQ(r.Header("Connection"), "close"); }},
    };
    HttpTestServer server;
    HttpClient client;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Reply r = client.Perform(server.Url(c.target), c.call);
        ASSERT_EQ(r.code, CURLE_OK) << curl_easy_strerror(r.code);
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(server.LastRequest().target, c.target);
        c.check(r, server);
    }
    EXPECT_EQ(server.RequestCount(), cases.size());
}

TEST(HttpTestServerTest, CookiesRoundTrip) {
    HttpTestServer server;
    HttpClient client;
    EXPECT_EQ(client.Perform(server.Url("/cookie/echo")).body, "");
    Reply set = client.Perform(server.Url("/cookie/set?name=flavour&value=oat%20meal"));
    EXPECT_EQ(set.Header("Set-Cookie"), "flavour=oat meal; Path=/");
    EXPECT_EQ(client.Perform(server.Url("/cookie/echo")).body, "flavour=oat meal");
}

TEST(HttpTestServerTest, ConnectionsAreKeptClosedAndDropped) {
    HttpTestServer server;
    HttpClient client;
    for (int i = 0; i < 3; ++i) ASSERT_EQ(client.Perform(server.Url("/fixed")).status, 200);
    EXPECT_EQ(server.ConnectionCount(), 1u);

    ASSERT_EQ(client.Perform(server.Url("/close")).status, 200);
    ASSERT_EQ(client.Perform(server.Url("/fixed")).status, 200);
    EXPECT_EQ(server.ConnectionCount(), 2u);

    // Every 2nd response loses its connection without notice; curl notices the
    // dead connection and opens a new one, so every request still succeeds.
    server.SetCloseEveryNth(2);
    for (int i = 0; i < 6; ++i) {
        Reply r = client.Perform(server.Url("/fixed"));
        ASSERT_EQ(r.code, CURLE_OK) << i;
        EXPECT_EQ(r.Header("Connection"), "");
    }
    // Responses 2, 4 and 6 after the call ended connections 2, 3 and 4.
    EXPECT_EQ(server.ConnectionCount(), 4u);
    auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 11u);
    std::vector<uint64_t> connections;
    for (const auto& r : requests) connections.push_back(r.connection);
    EXPECT_EQ(connections, (std::vector<uint64_t>{1, 1, 1, 1, 2, 2, 2, 3, 3, 4, 4}));
}

TEST(HttpTestServerTest, ResetSilentAndPromptStop) {
    auto server = std::make_unique<HttpTestServer>();
    Reply reset = Fetch(server->Url("/reset?bytes=100000&after=1000"));
    EXPECT_TRUE(reset.code == CURLE_RECV_ERROR || reset.code == CURLE_PARTIAL_FILE) << reset.code;
    EXPECT_EQ(reset.body, DeterministicBytes(1000));

    Call quick;
    quick.timeoutMs = 300;
    Reply silent = Fetch(server->Url("/silent"), quick);
    EXPECT_EQ(silent.code, CURLE_OPERATION_TIMEDOUT);
    EXPECT_EQ(server->LastRequest().target, "/silent");

    // Stopping must not wait for a pending delay, a silent answer or a drip.
    std::vector<std::thread> clients;
    std::vector<Reply> replies(3);
    const char* targets[] = {"/delay/60000", "/silent", "/drip?bytes=100&interval=1000"};
    for (int i = 0; i < 3; ++i)
        clients.emplace_back([&, i] { replies[i] = Fetch(server->Url(targets[i])); });
    ASSERT_TRUE(server->WaitForRequests(5, 5s));
    auto start = Clock::now();
    server.reset();
    EXPECT_LT(SecondsSince(start), 3.0);  // far from the 60 s delay
    for (auto& t : clients) t.join();
    for (const Reply& r : replies) {
        EXPECT_NE(r.code, CURLE_OK);
        EXPECT_LT(r.seconds, 6.0);
    }
}

TEST(HttpTestServerTest, TlsAndIpv6) {
    struct Case {
        const char* name;
        HttpTestServerOptions options;
        std::string host;  // "" = the server's own Url()
    };
    std::vector<Case> cases = {
        {"https localhost", {true, false}, ""},
        {"https 127.0.0.1", {true, false}, "127.0.0.1"},
        {"https ::1", {true, true}, ""},
        {"http ::1", {false, true}, ""},
    };
    const std::string upload = DeterministicBytes(1 << 20);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        HttpTestServer server(c.options);
        std::string base = c.host.empty() ? server.Url("/")
                                          : "https://" + c.host + ":" + std::to_string(server.Port()) + "/";
        Reply r = Fetch(base + "fixed");
        ASSERT_EQ(r.code, CURLE_OK) << curl_easy_strerror(r.code);
        EXPECT_EQ(r.body, "hello netloop");
        Reply big = Fetch(base + "bytes/1000003");
        EXPECT_TRUE(big.body == DeterministicBytes(1000003));
        Reply up = Fetch(base + "upload", {"PUT", upload});
        EXPECT_EQ(up.body, "size=1048576 sha256=" + Sha256Hex(upload));
        if (c.options.tls) {
            Call untrusted;
            untrusted.caFile = "";
            EXPECT_EQ(Fetch(base + "fixed", untrusted).code, CURLE_PEER_FAILED_VERIFICATION);
        }
    }
}

TEST(HttpTestServerTest, ParallelClients) {
    HttpTestServer server;
    constexpr int kThreads = 4, kEach = 40;
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            HttpClient client;
            std::string body = DeterministicBytes(20000 + t);
            for (int i = 0; i < kEach; ++i) {
                Reply r;
                switch (i % 3) {
                    case 0: r = client.Perform(server.Url("/fixed")); break;
                    case 1: r = client.Perform(server.Url("/bytes/70000")); break;
                    case 2: r = client.Perform(server.Url("/upload"), {"POST", body}); break;
                }
                bool ok = r.code == CURLE_OK && r.status == 200 &&
                          (i % 3 != 1 || r.body == DeterministicBytes(70000)) &&
                          (i % 3 != 2 || r.body == "size=" + std::to_string(body.size()) + " sha256=" + Sha256Hex(body));
                if (!ok) failures.fetch_add(1);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(server.RequestCount(), static_cast<uint64_t>(kThreads * kEach));
    EXPECT_EQ(server.ConnectionCount(), static_cast<uint64_t>(kThreads));
}

// ---------------------------------------------------------------- WebSocket client

struct Frame {
    int flags = 0;
    std::string data;
};

class WsClient {
public:
    // `autoPong` false: pings reach Recv() instead of being answered by curl.
    explicit WsClient(const std::string& url, const std::string& caFile = TestTls().caFile, bool autoPong = true)
        : m_Easy(curl_easy_init()) {
        curl_easy_setopt(m_Easy, CURLOPT_URL, url.c_str());
        if (!autoPong) curl_easy_setopt(m_Easy, CURLOPT_WS_OPTIONS, static_cast<long>(CURLWS_NOAUTOPONG));
        curl_easy_setopt(m_Easy, CURLOPT_CONNECT_ONLY, 2L);
        curl_easy_setopt(m_Easy, CURLOPT_TIMEOUT_MS, 10000L);
        curl_easy_setopt(m_Easy, CURLOPT_NOSIGNAL, 1L);
        if (!caFile.empty()) curl_easy_setopt(m_Easy, CURLOPT_CAINFO, caFile.c_str());
        code = curl_easy_perform(m_Easy);
        curl_easy_getinfo(m_Easy, CURLINFO_RESPONSE_CODE, &status);
        curl_off_t sock = -1;
        curl_easy_getinfo(m_Easy, CURLINFO_ACTIVESOCKET, &sock);
        m_Socket = static_cast<int>(sock);
    }
    ~WsClient() { curl_easy_cleanup(m_Easy); }

    CURLcode code;
    long status = 0;

    CURLcode Send(std::string_view data, unsigned flags, std::chrono::milliseconds timeout = 10s) {
        auto deadline = Clock::now() + timeout;
        size_t offset = 0;
        do {
            size_t sent = 0;
            CURLcode rc = curl_ws_send(m_Easy, data.data() + offset, data.size() - offset, &sent, 0, flags);
            offset += sent;
            if (rc == CURLE_AGAIN) {
                if (Clock::now() > deadline) return CURLE_OPERATION_TIMEDOUT;
                Wait(POLLOUT);
            } else if (rc != CURLE_OK) {
                return rc;
            }
        } while (offset < data.size());
        return CURLE_OK;
    }

    // The next complete frame, control frames included.
    CURLcode Recv(Frame& frame, std::chrono::milliseconds timeout = 10s) {
        auto deadline = Clock::now() + timeout;
        frame = Frame{};
        for (;;) {
            size_t n = 0;
            const curl_ws_frame* meta = nullptr;
            CURLcode rc = curl_ws_recv(m_Easy, m_Buf.data(), m_Buf.size(), &n, &meta);
            if (rc == CURLE_AGAIN) {
                if (Clock::now() > deadline) return CURLE_OPERATION_TIMEDOUT;
                Wait(POLLIN);
                continue;
            }
            if (rc != CURLE_OK) return rc;
            if (meta->offset == 0) frame.flags = meta->flags;
            frame.data.append(m_Buf.data(), n);
            if (meta->bytesleft == 0) return CURLE_OK;
        }
    }

    // Frames up to and including the final frame of the next message.
    std::vector<Frame> RecvMessage() {
        std::vector<Frame> frames;
        Frame f;
        while (Recv(f) == CURLE_OK) {
            frames.push_back(f);
            if (!(f.flags & CURLWS_CONT)) break;
        }
        return frames;
    }

private:
    void Wait(short events) {
        pollfd p{m_Socket, events, 0};
        poll(&p, 1, 50);
    }

    CURL* m_Easy;
    int m_Socket = -1;
    std::vector<char> m_Buf = std::vector<char>(256 * 1024);
};

std::string Joined(const std::vector<Frame>& frames) {
    std::string all;
    for (const auto& f : frames) all += f.data;
    return all;
}

struct WsCase {
    const char* name;
    std::vector<std::string> sendText;  // sent in order before reading
    std::function<void(WsClient&, WsTestServer&)> check;
    bool autoPong = true;
};

TEST(WsTestServerTest, EchoAndCommands) {
    auto expectText = [](std::string expected) {
        return [expected](WsClient& ws, WsTestServer&) {
            auto frames = ws.RecvMessage();
            ASSERT_EQ(frames.size(), 1u);
            EXPECT_TRUE(frames[0].flags & CURLWS_TEXT);
            EXPECT_EQ(frames[0].data, expected);
        };
    };
    std::vector<WsCase> cases = {
        {"echo", {"hello"}, expectText("hello")},
        {"frag", {"cmd:frag 3 abcdefghi"},
         [](WsClient& ws, WsTestServer&) {
             auto frames = ws.RecvMessage();
             ASSERT_EQ(frames.size(), 3u);
             EXPECT_TRUE(frames[0].flags & CURLWS_TEXT);
             EXPECT_TRUE(frames[0].flags & CURLWS_CONT);
             EXPECT_TRUE(frames[1].flags & CURLWS_CONT);
             EXPECT_FALSE(frames[2].flags & CURLWS_CONT);
             EXPECT_EQ(frames[0].data + "|" + frames[1].data + "|" + frames[2].data, "abc|def|ghi");
         }},
        {"frag with empty last frame", {"cmd:fragempty 3 abcdef"},
         [](WsClient& ws, WsTestServer&) {
             auto frames = ws.RecvMessage();
             ASSERT_EQ(frames.size(), 3u);
             EXPECT_EQ(frames[0].data + "|" + frames[1].data + "|" + frames[2].data, "abc|def|");
         }},
        {"empty", {"cmd:empty"}, expectText("")},
        {"text", {"cmd:text two words"}, expectText("two words")},
        {"count", {"a", "b", "cmd:count"},
         [](WsClient& ws, WsTestServer&) {
             EXPECT_EQ(Joined(ws.RecvMessage()), "a");
             EXPECT_EQ(Joined(ws.RecvMessage()), "b");
             EXPECT_EQ(Joined(ws.RecvMessage()), "2");
         }},
        {"unknown", {"cmd:nope"}, expectText("unknown command: cmd:nope")},
        {"big", {"cmd:big 3000001"},
         [](WsClient& ws, WsTestServer&) {
             auto frames = ws.RecvMessage();
             ASSERT_EQ(frames.size(), 1u);
             EXPECT_TRUE(frames[0].flags & CURLWS_BINARY);
             EXPECT_TRUE(frames[0].data == DeterministicBytes(3000001));
         }},
        {"bigtext", {"cmd:bigtext 1000"}, expectText(DeterministicText(1000))},
        {"ping", {"cmd:ping hi"},
         [](WsClient& ws, WsTestServer& server) {
             Frame f;
             ASSERT_EQ(ws.Recv(f), CURLE_OK);
             EXPECT_TRUE(f.flags & CURLWS_PING);
             EXPECT_EQ(f.data, "hi");
             // The server reads our pong before the message after it.
             ASSERT_EQ(ws.Send("hi", CURLWS_PONG), CURLE_OK);
             ASSERT_EQ(ws.Send("cmd:count", CURLWS_TEXT), CURLE_OK);
             EXPECT_EQ(Joined(ws.RecvMessage()), "1");
             EXPECT_EQ(server.Connections().back().pongs, 1u);
         },
         false},
        {"close", {"cmd:close 4001 bye"},
         [](WsClient& ws, WsTestServer&) {
             Frame f;
             ASSERT_EQ(ws.Recv(f), CURLE_OK);
             EXPECT_TRUE(f.flags & CURLWS_CLOSE);
             EXPECT_EQ(f.data, std::string("\x0f\xa1") + "bye");
         }},
        {"drop", {"cmd:drop"},
         [](WsClient& ws, WsTestServer&) {
             Frame f;
             CURLcode rc = ws.Recv(f);
             EXPECT_TRUE(rc == CURLE_GOT_NOTHING || rc == CURLE_RECV_ERROR) << rc;
         }},
    };
    WsTestServer server;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        WsClient ws(server.Url("/echo"), TestTls().caFile, c.autoPong);
        ASSERT_EQ(ws.code, CURLE_OK);
        for (const auto& text : c.sendText) ASSERT_EQ(ws.Send(text, CURLWS_TEXT), CURLE_OK);
        c.check(ws, server);
    }
    // Binary echo keeps its type, and the server records what it got.
    WsClient ws(server.Url("/"));
    std::string payload = DeterministicBytes(70000);
    ASSERT_EQ(ws.Send(payload, CURLWS_BINARY), CURLE_OK);
    auto frames = ws.RecvMessage();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_TRUE(frames[0].flags & CURLWS_BINARY);
    EXPECT_TRUE(frames[0].data == payload);
    auto last = server.ReceivedOn(server.ConnectionCount()).back();
    EXPECT_FALSE(last.text);
    EXPECT_EQ(last.size, payload.size());
    EXPECT_EQ(last.sha256, Sha256Hex(payload));
    EXPECT_TRUE(last.payload == payload);
}

TEST(WsTestServerTest, PathsTlsAndServerSide) {
    WsTestServer server;
    {
        WsClient refused(server.Url("/refuse/403"));
        EXPECT_NE(refused.code, CURLE_OK);
        EXPECT_EQ(refused.status, 403);
    }
    {
        // Commands from the test reach open connections; greetings new ones.
        server.SetOnConnect({"welcome", "cmd:ping"});
        WsClient ws(server.Url("/"), TestTls().caFile, false);
        ASSERT_EQ(ws.code, CURLE_OK);
        EXPECT_EQ(Joined(ws.RecvMessage()), "welcome");
        Frame f;
        ASSERT_EQ(ws.Recv(f), CURLE_OK);
        EXPECT_TRUE(f.flags & CURLWS_PING);
        server.SetOnConnect({});
        EXPECT_EQ(server.SendTextAll("to all"), 1u);
        EXPECT_EQ(Joined(ws.RecvMessage()), "to all");
        EXPECT_EQ(server.CloseAll(1001, "going"), 1u);
        ASSERT_EQ(ws.Recv(f), CURLE_OK);
        EXPECT_TRUE(f.flags & CURLWS_CLOSE);
    }
    {
        // Slow reading: a 16 MiB send (more than the kernel buffers on both
        // ends hold) stalls until the server starts reading; only its size and
        // hash are kept.
        WsClient ws(server.Url("/slowread?pause=300&piece=262144&interval=1"));
        std::string big = DeterministicBytes(16 << 20);
        auto start = Clock::now();
        uint64_t before = server.MessageCount();
        ASSERT_EQ(ws.Send(big, CURLWS_BINARY), CURLE_OK);
        EXPECT_GE(SecondsSince(start), 0.25);
        ASSERT_EQ(ws.Send("small", CURLWS_TEXT), CURLE_OK);
        EXPECT_EQ(Joined(ws.RecvMessage()), "small");  // the big one is not echoed
        ASSERT_TRUE(server.WaitForMessages(before + 2, 5s));
        auto got = server.Received();
        const WsMessage& m = got[got.size() - 2];
        EXPECT_EQ(m.size, big.size());
        EXPECT_EQ(m.sha256, Sha256Hex(big));
        EXPECT_TRUE(m.payload.empty());
    }
    {
        // 64 MiB arrive whole at a silent endpoint.
        WsClient ws(server.Url("/silent"));
        std::string huge = DeterministicBytes(64 << 20);
        uint64_t before = server.MessageCount();
        ASSERT_EQ(ws.Send(huge, CURLWS_BINARY, 30s), CURLE_OK);
        ASSERT_EQ(ws.Send("cmd:ping", CURLWS_TEXT), CURLE_OK);
        ASSERT_TRUE(server.WaitForMessages(before + 2, 20s));
        auto got = server.Received();
        EXPECT_EQ(got[got.size() - 2].size, huge.size());
        EXPECT_EQ(got[got.size() - 2].sha256, Sha256Hex(huge));
        Frame f;
        EXPECT_EQ(ws.Recv(f, 200ms), CURLE_OPERATION_TIMEDOUT);  // silent means silent
    }
    for (bool ipv6 : {false, true}) {
        SCOPED_TRACE(ipv6 ? "wss ::1" : "wss localhost");
        WsTestServer tls({true, ipv6});
        WsClient ws(tls.Url("/"));
        ASSERT_EQ(ws.code, CURLE_OK);
        ASSERT_EQ(ws.Send("cmd:frag 2 secure", CURLWS_TEXT), CURLE_OK);
        auto frames = ws.RecvMessage();
        ASSERT_EQ(frames.size(), 2u);
        EXPECT_EQ(Joined(frames), "secure");
        ASSERT_EQ(ws.Send("cmd:close 1000 done", CURLWS_TEXT), CURLE_OK);
        Frame f;
        ASSERT_EQ(ws.Recv(f), CURLE_OK);
        EXPECT_TRUE(f.flags & CURLWS_CLOSE);
        WsClient untrusted(tls.Url("/"), "");
        EXPECT_EQ(untrusted.code, CURLE_PEER_FAILED_VERIFICATION);
    }
}

TEST(WsTestServerTest, ParallelConnectionsAndBroadcasts) {
    // Echoes stay in order per connection while the test pushes messages into
    // every connection from another thread.
    WsTestServer server;
    constexpr int kClients = 4, kEach = 50;
    std::vector<std::unique_ptr<WsClient>> clients;
    for (int c = 0; c < kClients; ++c) clients.push_back(std::make_unique<WsClient>(server.Url("/")));
    ASSERT_TRUE(server.WaitForUpgrades(kClients, 5s));
    std::thread pusher([&] {
        for (int i = 0; i < 100; ++i) {
            server.SendTextAll("pushed");
            std::this_thread::sleep_for(1ms);
        }
    });
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int c = 0; c < kClients; ++c) {
        threads.emplace_back([&, c] {
            WsClient& ws = *clients[c];
            for (int i = 0; i < kEach; ++i) {
                std::string text = std::to_string(c) + ":" + std::to_string(i);
                if (ws.Send(text, CURLWS_TEXT) != CURLE_OK) {
                    failures.fetch_add(1);
                    return;
                }
                std::string got;
                do got = Joined(ws.RecvMessage());
                while (got == "pushed");
                if (got != text) failures.fetch_add(1);
            }
        });
    }
    for (auto& t : threads) t.join();
    pusher.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(server.MessageCount(), static_cast<uint64_t>(kClients * kEach));
    for (int c = 0; c < kClients; ++c) {
        auto got = server.ReceivedOn(c + 1);
        ASSERT_EQ(got.size(), static_cast<size_t>(kEach));
        EXPECT_EQ(got.back().index, static_cast<uint64_t>(kEach - 1));
    }
}

// ---------------------------------------------------------------- UDP

TEST(UdpEchoPeerTest, EchoesOverBothFamilies) {
    for (bool ipv6 : {false, true}) {
        SCOPED_TRACE(ipv6 ? "::1" : "127.0.0.1");
        UdpEchoPeer peer({ipv6});
        int fd = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_DGRAM, 0);
        ASSERT_GE(fd, 0);
        int big = 4 << 20;
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
        sockaddr_storage to{};
        socklen_t toLen;
        if (ipv6) {
            auto& a = reinterpret_cast<sockaddr_in6&>(to);
            a.sin6_family = AF_INET6;
            a.sin6_addr = in6addr_loopback;
            a.sin6_port = htons(peer.Port());
            toLen = sizeof a;
        } else {
            auto& a = reinterpret_cast<sockaddr_in&>(to);
            a.sin_family = AF_INET;
            a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            a.sin_port = htons(peer.Port());
            toLen = sizeof a;
        }
        ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&to), toLen), 0);
        auto recvWithin = [fd](std::string& out, int ms) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, ms) != 1) return false;
            out.resize(65536);
            ssize_t n = recv(fd, out.data(), out.size(), 0);
            if (n < 0) return false;
            out.resize(static_cast<size_t>(n));
            return true;
        };
        size_t maxSize = ipv6 ? 65527 : 65507;
        for (size_t size : {size_t{0}, size_t{1}, size_t{1400}, maxSize}) {
            std::string payload = DeterministicBytes(size, size);
            ASSERT_EQ(send(fd, payload.data(), payload.size(), 0), static_cast<ssize_t>(size));
            std::string echo;
            ASSERT_TRUE(recvWithin(echo, 2000)) << size;
            EXPECT_TRUE(echo == payload) << size;
        }
        // Order is kept and recorded per sender.
        peer.ClearReceived();
        for (int i = 0; i < 100; ++i) {
            std::string seq = std::to_string(i);
            ASSERT_EQ(send(fd, seq.data(), seq.size(), 0), static_cast<ssize_t>(seq.size()));
        }
        ASSERT_TRUE(peer.WaitForDatagrams(104, 2s));
        auto got = peer.Received();
        ASSERT_EQ(got.size(), 100u);
        for (int i = 0; i < 100; ++i) EXPECT_EQ(got[i].payload, std::to_string(i));
        EXPECT_EQ(got[0].sender.find(ipv6 ? "[::1]:" : "127.0.0.1:"), 0u);
        for (int i = 0; i < 100; ++i) {
            std::string echo;
            ASSERT_TRUE(recvWithin(echo, 2000));
            EXPECT_EQ(echo, std::to_string(i));
        }
        peer.SetMute(true);
        ASSERT_EQ(send(fd, "quiet", 5, 0), 5);
        ASSERT_TRUE(peer.WaitForDatagrams(105, 2s));
        std::string echo;
        EXPECT_FALSE(recvWithin(echo, 200));
        close(fd);
    }
}

// ---------------------------------------------------------------- nginx

TEST(NginxServerTest, ServesHttp1AndHttp2) {
    if (!NginxServer::Available()) GTEST_SKIP() << "nginx is not installed";
    NginxServer nginx;
    nginx.CreateFile("data/file.bin", (3 << 20) + 7);
    struct Case {
        const char* name;
        std::string url;
        long version;
        std::string protocol;
        long sslVersion = CURL_SSLVERSION_DEFAULT;
    };
    std::vector<Case> cases = {
        {"http/1.1", nginx.Url("/small"), CURL_HTTP_VERSION_1_1, "HTTP/1.1"},
        {"h2 over tls", nginx.TlsUrl("/small"), CURL_HTTP_VERSION_2TLS, "HTTP/2.0"},
        {"http/1.1 over tls 1.3", nginx.TlsUrl("/small"), CURL_HTTP_VERSION_1_1, "HTTP/1.1", CURL_SSLVERSION_TLSv1_3},
    };
    size_t lines = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        HttpClient client;
        Call call;
        call.httpVersion = c.version;
        call.sslVersion = c.sslVersion;
        Reply a = client.Perform(c.url, call);
        ASSERT_EQ(a.code, CURLE_OK) << curl_easy_strerror(a.code);
        EXPECT_EQ(a.body, NginxServer::SmallBody());
        EXPECT_EQ(a.httpVersion, c.version == CURL_HTTP_VERSION_1_1 ? CURL_HTTP_VERSION_1_1 : CURL_HTTP_VERSION_2_0);
        std::string file = c.url.substr(0, c.url.rfind('/')) + "/data/file.bin";
        Reply b = client.Perform(file, call);
        EXPECT_TRUE(b.body == DeterministicBytes((3 << 20) + 7));
        lines += 2;
        ASSERT_TRUE(nginx.WaitForAccessLogLines(lines, 5s));
        auto log = nginx.AccessLog();
        const auto& first = log[lines - 2];
        const auto& second = log[lines - 1];
        EXPECT_EQ(first.protocol, c.protocol);
        EXPECT_EQ(first.uri, "/small");
        EXPECT_EQ(second.uri, "/data/file.bin");
        EXPECT_EQ(second.status, 200);
        // The second request reused the first one's connection.
        EXPECT_EQ(second.connection, first.connection);
        EXPECT_EQ(second.connectionRequests, first.connectionRequests + 1);
    }
}

}  // namespace
