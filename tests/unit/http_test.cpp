// HTTP outcomes, bodies and sinks, TLS and the share, against nginx and the
// fault script.
#include "Kit.h"

namespace {

using namespace kit;

Nginx& Server() {
    static Nginx server({Loopback::V4,
                         "location = /cookie/set { add_header Set-Cookie \"k=v; Path=/\"; return 200 \"set\\n\"; }\n"
                         "location = /cookie/get { return 200 \"cookie:$http_cookie\\n\"; }\n"});
    return server;
}

Faults& FaultPeer() {
    static Faults faults;
    return faults;
}

TEST(Http, OutcomesReachOnFinishAndTheLog) {
    ScopedCaptureLogger log;
    Frame frame;
    Server().WriteFile("/file.txt", "file body\n");
    Server().CreateFile("/slow/big", 200000);
    Nginx v6({Loopback::V6});
    v6.WriteFile("/six", "over ::1\n");
    const std::string ca = TestCa().caFile;
    // ca: "" leaves libcurl's own store, null turns verification off.
    struct Case { std::string url; const char* ca; int timeoutMs; int result; long status; std::string body, logPart; };
    const Case cases[] = {
        {Server().Url("/file.txt"), "", 0, 0, 200, "file body\n", " DONE result[0:No error]"},
        {Server().Url("/status/404"), "", 0, 0, 404, "status 404\n", " DONE result[0:"},
        {Server().Url("/status/503"), "", 0, 0, 503, "status 503\n", " DONE result[0:"},
        {Server().Url("/redirect"), "", 0, 0, 302, "", " DONE result[0:"},
        {Server().TlsUrl("/file.txt"), ca.c_str(), 0, 0, 200, "file body\n", " DONE result[0:"},
        {Server().TlsUrl("/file.txt"), nullptr, 0, 0, 200, "file body\n", " DONE result[0:"},
        {Server().TlsUrl("/file.txt"), "", 0, -2, 0, "", " DONE result[60:"},
        {v6.Url("/six"), "", 0, 0, 200, "over ::1\n", " DONE result[0:"},
        {v6.TlsUrl("/six"), ca.c_str(), 0, 0, 200, "over ::1\n", " DONE result[0:"},
        {FaultPeer().Url("/reset"), "", 0, -2, 200, "", " DONE result[56:"},
        {FaultPeer().Url("/silent"), "", 300, -2, 0, "", " DONE result[28:"},
        {Server().Url("/slow/big"), "", 300, -2, 200, "", " DONE result[28:"},
        {"http://127.0.0.1:" + std::to_string(FreePort()) + "/", "", 0, -2, 0, "", " DONE result[7:"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.url + (c.ca == nullptr ? " no verification" : *c.ca ? " with the test CA" : ""));
        log->Clear();
        Transfer t(c.url, HTTP_REQ_GET, c.timeoutMs);
        if (c.ca == nullptr || *c.ca) EXPECT_EQ(t->SetCaPath(c.ca), 0);
        EXPECT_EQ(t->GetResponseCode(), 0) << "before any response";
        ASSERT_EQ(t.Run(frame), c.result);
        EXPECT_EQ(t->GetResponseCode(), c.status);
        if (c.result == 0 && c.status != 302) EXPECT_EQ(t->GetResponse(), c.body);
        EXPECT_EQ(log->CountContaining("[NETLOOP]" + c.url + c.logPart, c.result == 0 ? 0 : 60), 1u);
        if (c.result == 0 && c.url.rfind("https://127", 0) == 0)  // HTTP/2 by ALPN, as nginx saw it
            EXPECT_TRUE(Await([&] { auto l = Server().AccessLog(); return l.back().find(" HTTP/2.0 ") != l.back().npos; }, "HTTP/2"));
        EXPECT_EQ(t.Del(frame), 0);
        EXPECT_EQ(t.codeInDone, c.status) << "the response is still there for DelHttpReq's done function";
        EXPECT_EQ(t.rec->Get(&Recorder::finishes).size(), 1u) << "OnFinish once";
        // A second delete, queued behind the first, reads the handle once it is idle.
        EXPECT_EQ(t.Del(frame), -1);
        EXPECT_EQ(t.codeInDone, -1) << "idle after the delete";
    }
}

// Bodies: POST and PUT (known size and chunked) come back whole from the echo
// peer, a dav PUT reads back from nginx, and a response goes to memory, to a
// file or to memory again when the file cannot be opened.
TEST(Http, BodiesAndSinks) {
    ScopedCaptureLogger log;
    Frame frame;
    const std::string big = Pattern(300000);
    for (curl_off_t size : {curl_off_t(big.size()), curl_off_t(-1)}) {
        for (const std::string& url : {FaultPeer().Url("/echo"), Server().Url("/dav/up/" + std::to_string(size))}) {
            SCOPED_TRACE(url + " size " + std::to_string(size));
            Transfer put(url, HTTP_REQ_UPLOAD);
            size_t offset = 0;
            put.rec->upload = [&](char* buf, size_t room) {
                size_t n = std::min(room, big.size() - offset);
                std::copy_n(big.data() + offset, n, buf);
                offset += n;
                return n;
            };
            ASSERT_EQ(put->SetUploadSize(size), 0);
            ASSERT_EQ(put.Run(frame), 0);
            EXPECT_EQ(put->GetResponseCode(), url.find("/dav/") != std::string::npos ? 201 : 200);
            if (url.find("/echo") != std::string::npos) EXPECT_TRUE(put->GetResponse() == big);
            else EXPECT_TRUE(ReadFile(Server().Root() + "/dav/up/" + std::to_string(size)) == big);
            put.Del(frame);
        }
    }
    Transfer post(FaultPeer().Url("/echo"), HTTP_REQ_POST);
    EXPECT_EQ(post->SetPostFields(big.c_str()), 0);
    EXPECT_EQ(post->SetUploadSize(10), -1) << "upload size on a POST";
    ASSERT_EQ(post.Run(frame), 0);
    EXPECT_TRUE(post->GetResponse() == big);
    std::string fields;
    post->GetPostFields(fields);
    EXPECT_TRUE(fields == big);
    post.Del(frame);

    Server().WriteFile("/sink", big);
    TempDir dir;
    const std::string good = dir.Path() + "/made/on/demand.bin", bad = dir.Path() + "/made/on/demand.bin/x";
    for (const std::string& file : {good, bad}) {
        SCOPED_TRACE(file);
        Transfer get(Server().Url("/sink"));
        EXPECT_EQ(get->SetPostFields("x"), -1) << "POST body on a GET";
        EXPECT_EQ(get->SetOutputFile(file.c_str()), file == good ? 0 : -1);
        EXPECT_EQ(get->EnableProgress(true), 0);
        ASSERT_EQ(get.Run(frame), 0);
        EXPECT_GT(get.rec->Get(&Recorder::progress), 0);
        EXPECT_EQ(get.rec->Get(&Recorder::lastDlNow), curl_off_t(big.size()));
        get.Del(frame);
        EXPECT_TRUE((file == good ? ReadFile(good) : get->GetResponse()) == big);
        EXPECT_EQ(get->GetResponse().empty(), file == good);
    }
    EXPECT_TRUE(log->Has("[NETLOOP]Open file[" + bad + "] failed", 60));

    // Armed again, a handle appends the new body to the earlier one; it reports
    // no progress unless asked, and refuses a second arming or a null URL.
    Transfer again(Server().Url("/status/200"));
    EXPECT_EQ(again->InitHttpReq(Server().Url("/").c_str(), nullptr, HTTP_REQ_GET, nullptr, 0, 0, nullptr), -1);
    EXPECT_EQ(again->InitHttpReq(nullptr, nullptr, HTTP_REQ_GET, nullptr, 0, 0, nullptr), -1);
    for (int code : {200, 201}) {
        if (code == 201) again.rec->finishes.clear();
        if (code == 201) ASSERT_EQ(again->InitHttpReq(Server().Url("/status/201").c_str(), "t2", HTTP_REQ_GET, again.rec, 0, 0, nullptr), 0);
        ASSERT_EQ(again.Run(frame), 0);
        EXPECT_EQ(again->GetResponseCode(), code);
        again.Del(frame);
    }
    EXPECT_EQ(again->GetResponse(), "status 200\nstatus 201\n");
    EXPECT_EQ(again->GetTag(), "t2");
    EXPECT_EQ(again.rec->Get(&Recorder::progress), 0);
}

// Request headers reach the server, the trace goes to the log, a name at hand
// is pinned, and a frame with a share keeps one cookie store for all transfers.
TEST(Http, HeadersTracePinAndShare) {
    ScopedCaptureLogger log;
    {
        Frame frame;
        Transfer t(FaultPeer().Url("/headers"));
        EXPECT_EQ(t->SetHeaders({"X-One: 1"}), 0);
        EXPECT_EQ(t->SetHeaders({"X-Two: 2"}), 0);
        std::list<std::string> headers;
        t->GetHeaders(headers);
        EXPECT_EQ(headers, std::list<std::string>{"X-Two: 2"});
        EXPECT_EQ(t->EnableVerbose(), 0);
        ASSERT_EQ(t.Run(frame), 0);
        EXPECT_NE(t->GetResponse().find("X-One: 1\r\n"), std::string::npos) << t->GetResponse();
        EXPECT_NE(t->GetResponse().find("X-Two: 2\r\n"), std::string::npos) << t->GetResponse();
        EXPECT_GT(log->CountContaining("[NETLOOP][HEADER_OUT]", 0), 0u);
        EXPECT_GT(log->CountContaining("[NETLOOP][HEADER_IN]", 0), 0u);
        t.Del(frame);
        // A name the process resolver has at hand is pinned to its address:
        // libcurl itself could not resolve it.
        Server().WriteFile("/pinned", "pinned\n");
        auto previous = IHostseekInterface::GetHostseekInstance(3, nullptr);
        IHostseekInterface::GetHostseekInstance(3, std::make_shared<ScriptedResolver>(0, "127.0.0.1", true));
        Transfer pinned("http://pinned.test:" + std::to_string(Server().HttpPort()) + "/pinned");
        IHostseekInterface::GetHostseekInstance(3, previous);
        ASSERT_EQ(pinned.Run(frame), 0);
        EXPECT_EQ(pinned->GetResponse(), "pinned\n");
        pinned.Del(frame);
    }
    for (bool share : {false, true}) {
        Frame frame(share);
        Transfer set(Server().Url("/cookie/set")), get(Server().Url("/cookie/get"));
        ASSERT_EQ(set.Run(frame), 0);
        ASSERT_EQ(get.Run(frame), 0);
        EXPECT_EQ(get->GetResponse(), share ? "cookie:k=v\n" : "cookie:\n") << "share " << share;
        set.Del(frame);
        get.Del(frame);
    }
}

}  // namespace
