// Client features of a transfer against nginx and the fault script: response
// headers, methods, redirects, compression, transfer figures, the body cap,
// failed writes, CA files and folders, and the address pin.
#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "Kit.h"
#include "hostseek/IHostseekInterface.h"

namespace {

using namespace kit;
using H = IHttpHandleInterface;

std::string Header(H& h, const char* name) {
    std::string value = "<none>";
    h.GetResponseHeader(name, value);
    return value;
}

HttpTransferInfo Info(H& h) {
    HttpTransferInfo info;
    EXPECT_EQ(h.GetTransferInfo(&info), 0);
    return info;
}

// Knows one name, on both loopback families, and has it at hand.
class DualResolver : public hostseek_interface::IHostseekInterface {
public:
    DualResolver() {
        m_V4.sin_family = AF_INET;
        inet_pton(AF_INET, "127.0.0.1", &m_V4.sin_addr);
        m_V6.sin6_family = AF_INET6;
        inet_pton(AF_INET6, "::1", &m_V6.sin6_addr);
        auto* v4 = reinterpret_cast<sockaddr*>(&m_V4);
        auto* v6 = reinterpret_cast<sockaddr*>(&m_V6);
        m_Chain[0] = {0, AF_INET, SOCK_STREAM, 0, sizeof(m_V4), v4, nullptr, &m_Chain[1]};
        m_Chain[1] = {0, AF_INET6, SOCK_STREAM, 0, sizeof(m_V6), v6, nullptr, nullptr};
    }
    int ResolveHost(const char* host, const addrinfo*, std::shared_ptr<hostseek_interface::IHostseekResultNotic>,
                    void*, addrinfo** result) override {
        if (std::strcmp(host, "dual.test") != 0) return -1;
        *result = m_Chain;
        return 0;
    }

private:
    sockaddr_in m_V4{};
    sockaddr_in6 m_V6{};
    addrinfo m_Chain[2];
};

TEST(HttpClient, FeaturesAgainstRealServers) {
    Nginx nginx({Loopback::V4,
                 "location = /hdr { add_header X-One 'first value'; add_header Set-Cookie a=1;"
                 " add_header Set-Cookie b=2; return 200 hdr; }\n"
                 "location = /r1 { return 302 /r2; }\nlocation = /r2 { return 302 /redirect; }\n"
                 "location = /tofile { return 302 file:///etc/passwd; }\n"
                 "location /gz/ { gzip on; gzip_types *; gzip_min_length 1; }\n"});
    Faults faults;
    nginx.CreateFile("/data.bin", 5000);
    std::string text;
    for (int i = 0; text.size() < 200000; ++i) text += "line " + std::to_string(i) + "\n";
    nginx.WriteFile("/gz/text", text);
    TempDir caDir, emptyDir;
    const std::string rehash = "cp " + TestCa().caFile + " " + caDir.Path() + " && openssl rehash " + caDir.Path();
    ASSERT_EQ(std::system(rehash.c_str()), 0);
    const std::string missing = caDir.Path() + "/missing.pem";
    ScopedCaptureLogger log;
    Frame frame;
    using Setup = std::function<void(Transfer&)>;
    auto follow = [](long max) { return [max](Transfer& t) { EXPECT_EQ(t->SetFollowRedirects(max), 0); }; };
    auto ca = [](std::string path, int result) {
        return [=](Transfer& t) { EXPECT_EQ(t->SetCaPath(path.c_str()), result); };
    };
    auto cap = [](curl_off_t bytes, bool gzip) {
        return [=](Transfer& t) { EXPECT_EQ(t->SetMaxResponseSize(bytes) + t->EnableCompression(gzip), 0); };
    };
    // The body goes out as the POST body or the upload, whichever the handle takes.
    auto send = [](std::string method, std::string body) {
        return [=](Transfer& t) {
            t->SetPostFields(body.c_str());
            t->SetUploadSize(static_cast<curl_off_t>(body.size()));
            t.rec->upload = [body, sent = size_t(0)](char* buffer, size_t n) mutable {
                const size_t copied = body.copy(buffer, n, sent);
                sent += copied;
                return copied;
            };
            EXPECT_EQ(t->SetMethod("GE T"), -1);
            EXPECT_EQ(t->SetMethod(method.c_str()), 0);
        };
    };
    auto echoed = [](std::string text) {
        return [=](H& h) { EXPECT_EQ(Header(h, "X-Method") + " " + h.GetResponse(), text); };
    };
    auto status = [](long code) { return [=](H& h) { EXPECT_EQ(h.GetResponseCode(), code); }; };
    struct Case {
        const char* name;
        std::string url;
        int reqType;
        Setup setup;
        int result;  // of OnFinish
        std::function<void(H&)> check;
    };
    const Case cases[] = {
        {"headers by name, repeated, in order", nginx.Url("/hdr"), HTTP_REQ_GET, nullptr, 0,
         [](H& h) {
             EXPECT_EQ(Header(h, "x-ONE") + "|" + Header(h, "Set-Cookie") + "|" + Header(h, "X-Absent"),
                       "first value|b=2|<none>");
             std::vector<std::string> cookies;
             EXPECT_EQ(h.GetResponseHeaderValues("set-cookie", cookies), 2u);
             EXPECT_EQ(cookies, (std::vector<std::string>{"a=1", "b=2"}));
             std::vector<std::pair<std::string, std::string>> all;
             h.GetResponseHeaderList(all, false);
             EXPECT_TRUE(all.size() > 3 && all[all.size() - 3].first == "X-One" && all.back().second == "b=2");
             EXPECT_EQ(Info(h).httpVersion, 11);
         }},
        {"HEAD reads no body", nginx.Url("/data.bin"), HTTP_REQ_GET, send("HEAD", ""), 0,
         [](H& h) { EXPECT_EQ(Header(h, "Content-Length") + " " + h.GetResponse(), "5000 "); }},
        {"PATCH sends the POST body", faults.Url("/echo"), HTTP_REQ_POST, send("PATCH", "p"), 0, echoed("PATCH p")},
        {"DELETE sends the upload", faults.Url("/echo"), HTTP_REQ_UPLOAD, send("DELETE", "d"), 0, echoed("DELETE d")},
        {"three redirects followed", nginx.Url("/r1"), HTTP_REQ_GET, follow(3), 0,
         [&](H& h) {
             EXPECT_EQ(Info(h).effectiveUrl, nginx.Url("/status/200"));
             std::vector<std::pair<std::string, std::string>> all;
             h.GetResponseHeaderList(all, true);
             EXPECT_EQ(std::count_if(all.begin(), all.end(), [](auto& kv) { return kv.first == "Location"; }), 3);
         }},
        {"one redirect too many", nginx.Url("/r1"), HTTP_REQ_GET, follow(2), -2, status(302)},
        {"redirects off by default", nginx.Url("/r1"), HTTP_REQ_GET, nullptr, 0, status(302)},
        {"no redirect to a file", nginx.Url("/tofile"), HTTP_REQ_GET, follow(3), -2,
         [](H& h) { EXPECT_EQ(h.GetResponse().find("root:"), std::string::npos); }},
        {"gzip decoded", nginx.Url("/gz/text"), HTTP_REQ_GET, cap(0, true), 0,
         [&](H& h) {
             EXPECT_EQ(Header(h, "Content-Encoding"), "gzip");
             EXPECT_TRUE(h.GetResponse() == text && Info(h).bytesReceived < static_cast<curl_off_t>(text.size()));
         }},
        {"HTTP/2 over TLS, steps in order", nginx.TlsUrl("/data.bin"), HTTP_REQ_GET, ca(TestCa().caFile, 0), 0,
         [](H& h) {
             HttpTransferInfo i = Info(h);
             EXPECT_EQ(i.httpVersion, 20);
             EXPECT_TRUE(i.nameLookupUs <= i.connectUs && i.connectUs < i.tlsUs && i.tlsUs <= i.firstByteUs &&
                         i.firstByteUs <= i.totalUs);
         }},
        {"announced body past the cap", nginx.Url("/data.bin"), HTTP_REQ_GET, cap(4999, false), -2,
         [](H& h) { EXPECT_EQ(h.GetResponse(), ""); }},
        {"decoded body past the cap", nginx.Url("/gz/text"), HTTP_REQ_GET, cap(1000, true), -2,
         [](H& h) { EXPECT_EQ(h.GetResponse().size(), 1000u); }},
        {"full disk", nginx.Url("/data.bin"), HTTP_REQ_GET,
         [](Transfer& t) { EXPECT_EQ(t->SetOutputFile("/dev/full"), 0); }, -2, nullptr},
        {"CA folder", nginx.TlsUrl("/data.bin"), HTTP_REQ_GET, ca(caDir.Path(), 0), 0, nullptr},
        {"only the CA folder given", nginx.TlsUrl("/data.bin"), HTTP_REQ_GET, ca(emptyDir.Path(), 0), -2, nullptr},
        {"missing CA path refused", nginx.TlsUrl("/data.bin"), HTTP_REQ_GET, ca(missing, -1), -2, nullptr},
        {"connection refused", "http://127.0.0.1:" + std::to_string(FreePort()) + "/", HTTP_REQ_GET, nullptr, -2,
         [](H& h) { EXPECT_NE(h.GetErrorText().find("127.0.0.1"), std::string::npos); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Transfer t(c.url, c.reqType);
        if (c.setup) c.setup(t);
        EXPECT_EQ(t.Run(frame), c.result);
        EXPECT_EQ(t->GetErrorText().empty(), c.result == 0) << t->GetErrorText();
        if (c.check) c.check(*t.h);
        EXPECT_EQ(t.Del(frame), 0);
    }
    EXPECT_EQ(log->CountContaining("invalid method[GE T]", 60), 3u);
    EXPECT_EQ(log->CountContaining("[" + missing + "]", 60), 1u);
}

// Once a first transfer has left the name with the resolver, the next one is
// pinned: it must still reach a server on either loopback family.
TEST(HttpClient, PinnedAddressesReachEveryFamily) {
    Frame frame;
    Nginx v4({Loopback::V4}), v6({Loopback::V6});
    auto get = [&](const char* host, const Nginx& server) {
        Transfer t("http://" + std::string(host) + ":" + std::to_string(server.HttpPort()) + "/status/200");
        const int result = t.Run(frame);
        EXPECT_EQ(t.Del(frame), 0);
        return result;
    };
    auto resolver = hostseek_interface::IHostseekInterface::GetHostseekInstance(3, nullptr);
    const addrinfo hints{AI_ADDRCONFIG, AF_UNSPEC, SOCK_STREAM, 0, 0, nullptr, nullptr, nullptr};
    addrinfo* answer = nullptr;
    EXPECT_EQ(get("localhost", v4), 0);
    EXPECT_TRUE(Await([&] { return resolver->ResolveHost("localhost", &hints, nullptr, nullptr, &answer) == 0; },
                      "localhost at hand in the resolver"));
    EXPECT_EQ(get("localhost", v6), 0);
    EXPECT_EQ(get("localhost", v4), 0);
    // A name the resolver has on both families, served on one of them.
    hostseek_interface::IHostseekInterface::GetHostseekInstance(3, std::make_shared<DualResolver>());
    EXPECT_EQ(get("dual.test", v6), 0);
    hostseek_interface::IHostseekInterface::GetHostseekInstance(3, resolver);
}

}  // namespace
