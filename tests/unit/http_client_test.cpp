// The client features of a transfer against real loopback servers: response
// headers, methods, redirects, compression, transfer figures, the body cap,
// failed writes, CA files and folders, and the address pin.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "hostseek/IHostseekInterface.h"
#include "netloop/IHttpInterface.h"
#include "support/CaptureLogger.h"
#include "support/FakeResolver.h"
#include "support/Servers.h"
#include "support/Wait.h"

using namespace netloop;
using namespace testsupport;

namespace {

// Feeds an upload from `upload` and keeps OnFinish's result (1 until then).
class Recorder : public IHttpHandleNotic {
public:
    std::string upload;
    size_t sent = 0;
    std::atomic<int> result{1};
    void OnWsData(const char*, size_t, int, void*) override {}
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override {}
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char* buffer, size_t size, size_t n, void*) override {
        const size_t copied = upload.copy(buffer, size * n, sent);
        sent += copied;
        return copied;
    }
    void OnFinish(std::shared_ptr<IHttpHandleInterface>, int r, void*) override { result = r; }
};

using Setup = std::function<void(IHttpHandleInterface&, Recorder&)>;
using Check = std::function<void(IHttpHandleInterface&)>;

// One frame for a test, stopped at its end.
struct Client {
    std::shared_ptr<IHttpInterface> frame = IHttpInterface::Create();
    Client() {
        EXPECT_EQ(0, frame->Init(nullptr, false, false, nullptr));
        EXPECT_EQ(0, frame->Start(true));
    }
    ~Client() { frame->Stop(false); }

    // Arms a handle for `url`, runs it and returns OnFinish's result; `check`
    // reads the finished transfer before it is deleted.
    int Transfer(const std::string& url, int reqType, const Setup& setup, const Check& check) {
        auto handle = IHttpHandleInterface::Create();
        auto notice = std::make_shared<Recorder>();
        EXPECT_EQ(0, handle->InitHttpReq(url.c_str(), nullptr, reqType, notice, 10000, 30000, nullptr));
        if (setup) setup(*handle, *notice);
        frame->AddHttpReq(handle, true, nullptr, nullptr);
        EXPECT_TRUE(Await([&] { return notice->result != 1; }, "OnFinish of " + url));
        const int result = notice->result;
        if (check) check(*handle);
        std::atomic<bool> deleted{false};
        frame->DelHttpReq(handle, true, [&](std::shared_ptr<IHttpHandleInterface>, void*, int) { deleted = true; },
                          nullptr);
        EXPECT_TRUE(Await([&] { return deleted.load(); }, "the delete of " + url));
        return result;
    }
};

std::string Header(IHttpHandleInterface& h, const char* name) {
    std::string value = "<none>";
    h.GetResponseHeader(name, value);
    return value;
}

HttpTransferInfo Info(IHttpHandleInterface& h) {
    HttpTransferInfo info;
    EXPECT_EQ(0, h.GetTransferInfo(&info));
    return info;
}

// A transfer, what to set before it runs, OnFinish's result and what to read after.
struct Case { const char* name; std::string url; int reqType; Setup setup; int result; Check check; };

}  // namespace

TEST(HttpClient, FeaturesAgainstRealServers) {
    NginxOptions options;
    options.extraLocations =
        "location = /hdr { add_header X-One 'first value'; add_header Set-Cookie a=1; add_header Set-Cookie b=2;"
        " return 200 hdr; }\n"
        "location = /r1 { return 302 /r2; }\nlocation = /r2 { return 302 /redirect; }\n"
        "location = /tofile { return 302 file:///etc/passwd; }\n"
        "location /gz/ { gzip on; gzip_types *; gzip_min_length 1; }\n";
    Nginx nginx(options);
    Faults faults;
    nginx.CreateFile("/data.bin", 5000);
    std::string text;
    for (int i = 0; text.size() < 200000; ++i) text += "line " + std::to_string(i) + "\n";
    nginx.WriteFile("/gz/text", text);
    TempDir caDir, emptyDir;
    ASSERT_EQ(0, std::system(("cp " + TestCa().caFile + " " + caDir.Path() + " && openssl rehash " + caDir.Path())
                                 .c_str()));
    const std::string missing = caDir.Path() + "/missing.pem";
    ScopedCaptureLogger log;
    Client client;
    using H = IHttpHandleInterface;
    auto follow = [](long max) { return [max](H& h, Recorder&) { EXPECT_EQ(0, h.SetFollowRedirects(max)); }; };
    auto ca = [](std::string path, int expected) {
        return [=](H& h, Recorder&) { EXPECT_EQ(expected, h.SetCaPath(path.c_str())); };
    };
    auto cap = [](curl_off_t bytes, bool gzip) {
        return [=](H& h, Recorder&) { EXPECT_EQ(0, h.SetMaxResponseSize(bytes) + h.EnableCompression(gzip)); };
    };
    // The body goes out as the POST body or the upload, whichever the handle takes.
    auto send = [](std::string method, std::string body) {
        return [=](H& h, Recorder& n) {
            n.upload = body;
            h.SetPostFields(body.c_str());
            h.SetUploadSize(static_cast<curl_off_t>(body.size()));
            EXPECT_EQ(-1, h.SetMethod("GE T"));
            EXPECT_EQ(0, h.SetMethod(method.c_str()));
        };
    };
    auto echoed = [](std::string text) {
        return [=](H& h) { EXPECT_EQ(text, Header(h, "X-Method") + " " + h.GetResponse()); };
    };
    auto status = [](long code) { return [=](H& h) { EXPECT_EQ(code, h.GetResponseCode()); }; };
    const std::vector<Case> cases = {
        {"headers by name, repeated, in order", nginx.Url("/hdr"), HTTP_REQ_GET, nullptr, 0,
         [](H& h) {
             EXPECT_EQ("first value", Header(h, "x-ONE"));
             EXPECT_EQ("b=2", Header(h, "Set-Cookie"));
             EXPECT_EQ("<none>", Header(h, "X-Absent"));
             std::vector<std::string> cookies;
             EXPECT_EQ(2u, h.GetResponseHeaderValues("set-cookie", cookies));
             EXPECT_EQ((std::vector<std::string>{"a=1", "b=2"}), cookies);
             std::vector<std::pair<std::string, std::string>> all;
             h.GetResponseHeaderList(all, false);
             EXPECT_TRUE(all.size() > 3 && all[all.size() - 3].first == "X-One" && all.back().second == "b=2");
             EXPECT_EQ(11, Info(h).httpVersion);
         }},
        {"HEAD reads no body", nginx.Url("/data.bin"), HTTP_REQ_GET, send("HEAD", ""), 0,
         [](H& h) { EXPECT_EQ("5000 ", Header(h, "Content-Length") + " " + h.GetResponse()); }},
        {"PATCH sends the POST body", faults.Url("/echo"), HTTP_REQ_POST, send("PATCH", "p"), 0, echoed("PATCH p")},
        {"DELETE sends the upload", faults.Url("/echo"), HTTP_REQ_UPLOAD, send("DELETE", "d"), 0, echoed("DELETE d")},
        {"three redirects followed", nginx.Url("/r1"), HTTP_REQ_GET, follow(3), 0,
         [&](H& h) {
             EXPECT_EQ(nginx.Url("/status/200"), Info(h).effectiveUrl);
             std::vector<std::pair<std::string, std::string>> all;
             h.GetResponseHeaderList(all, true);
             EXPECT_EQ(3, std::count_if(all.begin(), all.end(), [](auto& kv) { return kv.first == "Location"; }));
         }},
        {"one redirect too many", nginx.Url("/r1"), HTTP_REQ_GET, follow(2), -2, status(302)},
        {"redirects off by default", nginx.Url("/r1"), HTTP_REQ_GET, nullptr, 0, status(302)},
        {"no redirect to a file", nginx.Url("/tofile"), HTTP_REQ_GET, follow(3), -2,
         [](H& h) { EXPECT_EQ(std::string::npos, h.GetResponse().find("root:")); }},
        {"gzip decoded", nginx.Url("/gz/text"), HTTP_REQ_GET, cap(0, true), 0,
         [&](H& h) {
             EXPECT_EQ("gzip", Header(h, "Content-Encoding"));
             EXPECT_TRUE(h.GetResponse() == text && Info(h).bytesReceived < static_cast<curl_off_t>(text.size()));
         }},
        {"HTTP/2 over TLS, steps in order", nginx.TlsUrl("/data.bin"), HTTP_REQ_GET, ca(TestCa().caFile, 0), 0,
         [](H& h) {
             HttpTransferInfo i = Info(h);
             EXPECT_EQ(20, i.httpVersion);
             EXPECT_TRUE(i.nameLookupUs <= i.connectUs && i.connectUs < i.tlsUs && i.tlsUs <= i.firstByteUs &&
                         i.firstByteUs <= i.totalUs);
         }},
        {"announced body past the cap", nginx.Url("/data.bin"), HTTP_REQ_GET, cap(4999, false), -2,
         [](H& h) { EXPECT_EQ("", h.GetResponse()); }},
        {"decoded body past the cap", nginx.Url("/gz/text"), HTTP_REQ_GET, cap(1000, true), -2,
         [](H& h) { EXPECT_EQ(1000u, h.GetResponse().size()); }},
        {"full disk", nginx.Url("/data.bin"), HTTP_REQ_GET,
         [](H& h, Recorder&) { EXPECT_EQ(0, h.SetOutputFile("/dev/full")); }, -2, nullptr},
        {"CA folder", nginx.TlsUrl("/data.bin"), HTTP_REQ_GET, ca(caDir.Path(), 0), 0, nullptr},
        {"only the CA folder given", nginx.TlsUrl("/data.bin"), HTTP_REQ_GET, ca(emptyDir.Path(), 0), -2, nullptr},
        {"missing CA path refused", nginx.TlsUrl("/data.bin"), HTTP_REQ_GET, ca(missing, -1), -2, nullptr},
        {"connection refused", "http://127.0.0.1:1/", HTTP_REQ_GET, nullptr, -2,
         [](H& h) { EXPECT_NE(std::string::npos, h.GetErrorText().find("127.0.0.1")); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.result, client.Transfer(c.url, c.reqType, c.setup, [&](IHttpHandleInterface& h) {
            EXPECT_EQ(c.result == 0, h.GetErrorText().empty()) << h.GetErrorText();
            if (c.check) c.check(h);
        }));
    }
    EXPECT_EQ(3u, log->CountContaining("invalid method[GE T]", 60));
    EXPECT_EQ(1u, log->CountContaining("[" + missing + "]", 60));
}

// Once a first transfer has left the name with the resolver, the next one is
// pinned: it must still reach a server on either loopback family.
TEST(HttpClient, PinnedAddressesReachEveryFamily) {
    Client client;
    Nginx v4(NginxOptions{Loopback::V4, ""}), v6(NginxOptions{Loopback::V6, ""});
    auto get = [&](const char* host, const Nginx& server) {
        const std::string url = "http://" + std::string(host) + ":" + std::to_string(server.HttpPort()) + "/status/200";
        return client.Transfer(url, HTTP_REQ_GET, nullptr, nullptr);
    };
    auto resolver = hostseek_interface::IHostseekInterface::GetHostseekInstance(3, nullptr);
    const addrinfo hints{AI_ADDRCONFIG, AF_UNSPEC, SOCK_STREAM, 0, 0, nullptr, nullptr, nullptr};
    addrinfo* answer = nullptr;
    EXPECT_EQ(0, get("localhost", v4));
    EXPECT_TRUE(Await([&] { return resolver->ResolveHost("localhost", &hints, nullptr, nullptr, &answer) == 0; },
                      "localhost at hand in the resolver"));
    EXPECT_EQ(0, get("localhost", v6));
    EXPECT_EQ(0, get("localhost", v4));
    // A name the resolver knows on both families, served on one.
    auto fake = std::make_shared<FakeResolver>();
    fake->Set("dual.test", FakeResolver::Script::AtOnce({"127.0.0.1", "::1"}));
    ScopedResolver installed(fake);
    EXPECT_EQ(0, get("dual.test", v6));
}
