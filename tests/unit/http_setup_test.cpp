// Arming HTTP handles without a server: URL splitting, the address pin, the
// guards of every setter, and how re-arming treats what a transfer left behind.
#include <gtest/gtest.h>
#include <netdb.h>

#include <future>

#include "frame/HttpFrame.h"
#include "http/HttpHandle.h"
#include "support/CaptureLogger.h"
#include "support/FakeResolver.h"
#include "support/Wait.h"

using namespace netloop;
using testsupport::FakeResolver;
using testsupport::ScopedCaptureLogger;
using testsupport::ScopedResolver;

namespace {

// An armed handle keeps itself alive until a frame deletes it.
void EndThroughFrame(const std::shared_ptr<IHttpHandleInterface>& handle) {
    auto frame = IHttpInterface::Create();
    ASSERT_EQ(frame->Init(nullptr, false, false, nullptr), 0);
    ASSERT_EQ(frame->Start(true), 0);
    std::promise<int> deleted;
    ASSERT_EQ(frame->DelHttpReq(handle, false, [&](std::shared_ptr<IHttpHandleInterface>, void*, int rc) {
        deleted.set_value(rc);
    }, nullptr), 0);
    auto f = deleted.get_future();
    ASSERT_EQ(f.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(frame->Stop(false), 0);  // the record ran before the stop: teardown is done
}

TEST(HttpSetup, SplitsHostAndPortWithSchemeDefaults) {
    struct Case {
        const char* url;
        bool ok;
        const char* host;
        const char* port;
    };
    const Case cases[] = {
        {"http://example.test/path", true, "example.test", "80"},
        {"ws://example.test", true, "example.test", "80"},
        {"https://example.test/", true, "example.test", "443"},
        {"wss://example.test/chat", true, "example.test", "443"},
        {"ftp://files.test/x", true, "files.test", "21"},
        {"ssh://box.test", false, "", ""},  // not a scheme this libcurl knows
        {"telnet://box.test", true, "box.test", "23"},
        {"gopher://box.test/", true, "box.test", ""},
        {"https://example.test:8443/x", true, "example.test", "8443"},
        {"gopher://example.test:7/", true, "example.test", "7"},
        {"foo://example.test:7/", false, "", ""},
        {"http://127.0.0.1:8080/", true, "127.0.0.1", "8080"},
        {"http://[::1]:9000/", true, "[::1]", "9000"},
        {"not a url", false, "", ""},
        {"", false, "", ""},
    };
    for (const Case& c : cases) {
        std::string host, port;
        EXPECT_EQ(CHttpHandle::SplitUrlHostPort(c.url, host, port), c.ok) << c.url;
        if (!c.ok) continue;
        EXPECT_EQ(host, c.host) << c.url;
        EXPECT_EQ(port, c.port) << c.url;
    }
}

TEST(HttpSetup, PinsOnlyWhatTheResolverHasAtHand) {
    auto fake = std::make_shared<FakeResolver>();
    ScopedResolver scoped(fake);
    fake->Set("v4.test", FakeResolver::Script::AtOnce({"::2", "10.0.0.7", "10.0.0.8"}));
    fake->Set("v6.test", FakeResolver::Script::AtOnce({"::1"}));
    fake->Set("late.test", FakeResolver::Script::Late({"10.0.0.9"}));
    struct Case {
        const char* url;
        const char* entry;
    };
    const Case cases[] = {
        {"http://v4.test/", "v4.test:80:10.0.0.7"},
        {"https://v4.test:8443/x", "v4.test:8443:10.0.0.7"},
        {"wss://v4.test/chat", "v4.test:443:10.0.0.7"},
        {"gopher://v4.test:7/", "v4.test:7:10.0.0.7"},
        {"foo://v4.test:7/", ""},  // the URL parser refuses the scheme
        {"http://v6.test:81/", "v6.test:81:[::1]"},
        {"gopher://v4.test/", ""},  // no port known: libcurl would refuse the entry
        {"http://late.test/", ""},
        {"http://unknown.test/", ""},
    };
    for (const Case& c : cases) EXPECT_EQ(CHttpHandle::BuildAddressPin(c.url), c.entry) << c.url;

    // The look-up asks without a notice, with the stream hints.
    auto requests = fake->Requests();
    ASSERT_FALSE(requests.empty());
    for (const auto& r : requests) {
        EXPECT_FALSE(r.withNotice);
        EXPECT_EQ(r.family, AF_UNSPEC);
        EXPECT_EQ(r.socktype, SOCK_STREAM);
        EXPECT_EQ(r.flags, AI_ADDRCONFIG);
    }
    EXPECT_EQ(fake->RequestCount("unknown.test"), 1u);
}

TEST(HttpSetup, GuardsRefuseSilentlyAndArmingIsExclusive) {
    ScopedCaptureLogger log;
    auto handle = IHttpHandleInterface::Create();
    std::list<std::string> headers{"X-One: 1"};
    auto data = std::make_shared<std::vector<uint8_t>>(3, 'x');
    size_t sent = 7;
    // An idle handle refuses every setter without a word.
    EXPECT_EQ(handle->Disconnect(), -1);
    EXPECT_EQ(handle->SetPostFields("a=b"), -1);
    EXPECT_EQ(handle->SendWsData(data, 1, &sent), -1);
    EXPECT_EQ(handle->EnableVerbose(), -1);
    EXPECT_EQ(handle->SetOutputFile("/tmp/never-written"), -1);
    EXPECT_EQ(handle->EnableProgress(true), -1);
    EXPECT_EQ(handle->SetCaPath(nullptr), -1);
    EXPECT_EQ(handle->SetHeaders(headers), -1);
    EXPECT_EQ(handle->SetUploadSize(10), -1);
    EXPECT_EQ(handle->GetResponseCode(), -1);
    EXPECT_EQ(handle->InitHttpReq(nullptr, "t", HTTP_REQ_GET, nullptr, 0, 0, nullptr), -1);
    EXPECT_TRUE(log->Lines().empty());
    EXPECT_EQ(sent, 7u);

    // The context needs no state and survives everything.
    auto context = std::make_shared<int>(42);
    handle->SetContext(context);

    int user = 0;
    ASSERT_EQ(handle->InitHttpReq("http://127.0.0.1:9/", nullptr, HTTP_REQ_GET, nullptr, 0, 0, &user), 0);
    EXPECT_EQ(handle->InitHttpReq("http://127.0.0.1:9/", "again", HTTP_REQ_GET, nullptr, 0, 0, nullptr), -1);
    EXPECT_EQ(handle->GetTag(), "");
    EXPECT_EQ(handle->GetUrl(), "http://127.0.0.1:9/");
    EXPECT_EQ(handle->GetUserData(), &user);
    EXPECT_EQ(handle->GetResponseCode(), 0);
    // Setters that belong to other request kinds stay refused.
    EXPECT_EQ(handle->SetPostFields("a=b"), -1);
    EXPECT_EQ(handle->SetUploadSize(10), -1);
    EXPECT_EQ(handle->SendWsData(data, 1, &sent), -1);
    EXPECT_EQ(handle->SetPostFields(nullptr), -1);
    EXPECT_EQ(handle->SetHeaders({}), -1);  // nothing to send yet
    EXPECT_EQ(handle->SetHeaders(headers), 0);
    EXPECT_EQ(handle->SetHeaders({}), 0);   // the old list still goes out
    std::list<std::string> seen{"stale"};
    handle->GetHeaders(seen);
    EXPECT_TRUE(seen.empty());
    EXPECT_EQ(handle->EnableProgress(false), 0);
    EXPECT_EQ(handle->EnableVerbose(), 0);
    EXPECT_EQ(handle->SetCaPath(nullptr), 0);
    EXPECT_TRUE(log->Lines().empty());

    // An unwritable output path is refused with its message.
    EXPECT_EQ(handle->SetOutputFile("/proc/no/such/file"), -1);
    EXPECT_TRUE(log->Has("[NETLOOP]Open file[/proc/no/such/file] failed", 60));

    std::shared_ptr<void> back;
    handle->GetContext(back);
    EXPECT_EQ(back, context);
    EndThroughFrame(handle);
}

TEST(HttpSetup, TypedSettersAcceptTheirOwnKindOnly) {
    struct Case {
        int type;
        bool post, upload;
    };
    for (const Case& c : {Case{HTTP_REQ_POST, true, false}, Case{HTTP_REQ_UPLOAD, false, true},
                          Case{HTTP_REQ_WEBSOCKET, false, false}, Case{17, false, false}}) {
        auto handle = IHttpHandleInterface::Create();
        ASSERT_EQ(handle->InitHttpReq("http://127.0.0.1:9/", "tag", c.type, nullptr, 0, 0, nullptr), 0) << c.type;
        EXPECT_EQ(handle->SetPostFields("first") == 0, c.post) << c.type;
        EXPECT_EQ(handle->SetUploadSize(5) == 0, c.upload) << c.type;
        if (c.post) {
            EXPECT_EQ(handle->SetPostFields("second"), 0);
            std::string fields;
            handle->GetPostFields(fields);
            EXPECT_EQ(fields, "second");
        }
        EndThroughFrame(handle);
    }
}

// A handle armed but never added can still be ended through the frame, and a
// handle dropped by the application while armed stays alive until then.
TEST(HttpSetup, ArmedHandlesEndOnlyThroughTheFrame) {
    auto frame = IHttpInterface::Create();
    ASSERT_EQ(frame->Init(nullptr, false, false, nullptr), 0);
    ASSERT_EQ(frame->Start(true), 0);
    std::weak_ptr<IHttpHandleInterface> weak;
    std::shared_ptr<IHttpHandleInterface> kept;
    {
        auto handle = IHttpHandleInterface::Create();
        ASSERT_EQ(handle->InitHttpReq("http://127.0.0.1:9/", "t", HTTP_REQ_GET, nullptr, 0, 0, nullptr), 0);
        weak = handle;
    }
    ASSERT_FALSE(weak.expired());
    kept = weak.lock();
    std::promise<int> deleted;
    ASSERT_EQ(frame->DelHttpReq(kept, false, [&](std::shared_ptr<IHttpHandleInterface> h, void*, int rc) {
        EXPECT_EQ(h->GetResponseCode(), 0);  // still whole inside the done function
        deleted.set_value(rc);
    }, nullptr), 0);
    // Records run in order: a later one sees the teardown finished.
    std::promise<long> codeAfter;
    ASSERT_EQ(frame->DelHttpReq(IHttpHandleInterface::Create(), false, [&](std::shared_ptr<IHttpHandleInterface>, void*, int) {
        codeAfter.set_value(kept->GetResponseCode());
    }, nullptr), 0);
    auto f = deleted.get_future();
    ASSERT_EQ(f.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(f.get(), 0);
    auto code = codeAfter.get_future();
    ASSERT_EQ(code.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(code.get(), -1);
    // Idle again: it can be armed anew, and dropping it now destroys it.
    EXPECT_EQ(kept->InitHttpReq("http://127.0.0.1:9/", "t", HTTP_REQ_GET, nullptr, 0, 0, nullptr), 0);
    std::promise<void> again;
    ASSERT_EQ(frame->DelHttpReq(kept, false, [&](std::shared_ptr<IHttpHandleInterface>, void*, int) {
        again.set_value();
    }, nullptr), 0);
    ASSERT_EQ(again.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    kept.reset();
    EXPECT_TRUE(testsupport::WaitUntil([&] { return weak.expired(); }));
    EXPECT_EQ(frame->Stop(false), 0);
}

}  // namespace
