// netloop demo: every capability end to end against servers started in this
// process on loopback, with a short report. Nothing leaves the machine.
#include <netloop/IHttpInterface.h>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "Commands.h"
#include "ToolCommon.h"
#include "loopback/HttpTestServer.h"
#include "loopback/TestData.h"
#include "loopback/TestTls.h"
#include "loopback/UdpEchoPeer.h"
#include "loopback/WsTestServer.h"

namespace tool {
namespace {

using namespace netloop;
using namespace std::chrono_literals;

// Collects everything a transfer tells, for the demo's checks.
class Recorder : public IHttpHandleNotic {
public:
    std::function<size_t(char*, size_t)> upload;
    std::atomic<int> progressCalls{0};
    std::mutex mutex;
    std::vector<std::pair<int, std::string>> messages;  // WebSocket (type, payload)
    std::atomic<int> wsState{1};
    std::promise<int> finished;

    void OnWsData(const char* data, size_t length, int type, void*) override {
        std::lock_guard<std::mutex> lock(mutex);
        messages.emplace_back(type, std::string(data, length));
    }
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t, curl_off_t, curl_off_t, void*) override {
        ++progressCalls;
    }
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char* buffer, size_t size, size_t nitems,
                        void*) override {
        return upload ? upload(buffer, size * nitems) : 0;
    }
    void OnFinish(std::shared_ptr<IHttpHandleInterface>, int result, void*) override { finished.set_value(result); }
    void OnWsState(std::shared_ptr<IHttpHandleInterface>, int state, void*) override { wsState = state; }

    size_t MessageCount() {
        std::lock_guard<std::mutex> lock(mutex);
        return messages.size();
    }
};

struct Line {
    std::string what;
    bool ok;
    std::string detail;
};

class Demo {
public:
    Demo() : m_Https(testsupport::HttpTestServerOptions{true}) {}

    int Run() {
        std::printf("netloop demo: every capability end to end on loopback\n\n");
        Step("frame start", [&] { return StartFrame(); });
        Step("parallel GETs with progress", [&] { return ParallelGets(); });
        Step("POST", [&] { return Post(); });
        Step("upload through OnUploadRead", [&] { return Upload(); });
        Step("download to a file", [&] { return DownloadToFile(); });
        Step("HTTPS with verification", [&] { return Https(); });
        Step("WebSocket echo, fragmented message", [&] { return WebSocket(); });
        Step("timers: one-shot, repeating, stop/again", [&] { return Timers(); });
        Step("UDP echo through a name", [&] { return Udp(); });
        Step("clean stop", [&] { return StopFrame(); });
        int failed = 0;
        for (const Line& l : m_Lines) failed += !l.ok;
        std::printf("\n%s\n", failed == 0 ? "all capabilities working" : "some capabilities FAILED");
        return failed == 0 ? 0 : 1;
    }

private:
    void Step(const char* what, const std::function<std::string()>& fn) {
        std::string detail;
        bool ok = false;
        if (m_Frame || std::string(what) == "frame start") {
            detail = fn();
            ok = detail.rfind("FAILED", 0) != 0;
        } else {
            detail = "FAILED: no frame";
        }
        m_Lines.push_back({what, ok, detail});
        if (!ok && detail.rfind("FAILED: ", 0) == 0) detail.erase(0, 8);
        std::printf("  %-42s %-6s %s\n", what, ok ? "ok" : "FAILED", detail.c_str());
        std::fflush(stdout);
    }

    std::string StartFrame() {
        auto frame = IHttpInterface::Create();
        if (frame->Init(nullptr, false, true, nullptr) != 0 || frame->Start(true) != 0) return "FAILED: Init/Start";
        m_Frame = frame;
        return "loop thread running, multi handle and share ready";
    }

    // Arms, adds and waits for one transfer; returns its OnFinish result.
    int RunTransfer(const std::shared_ptr<IHttpHandleInterface>& handle, const std::shared_ptr<Recorder>& rec) {
        if (m_Frame->AddHttpReq(handle, false, nullptr, nullptr) != 0) return -99;
        auto f = rec->finished.get_future();
        return f.wait_for(30s) == std::future_status::ready ? f.get() : -98;
    }

    void Delete(const std::shared_ptr<IHttpHandleInterface>& handle) {
        std::promise<void> done;
        m_Frame->DelHttpReq(handle, false, [&](std::shared_ptr<IHttpHandleInterface>, void*, int) { done.set_value(); },
                            nullptr);
        done.get_future().wait_for(10s);
    }

    std::string ParallelGets() {
        const int kCount = 8;
        std::vector<std::shared_ptr<IHttpHandleInterface>> handles;
        std::vector<std::shared_ptr<Recorder>> recs;
        uint64_t total = 0;
        for (int i = 0; i < kCount; ++i) {
            uint64_t size = (1u << 20) * (i + 1);
            total += size;
            recs.push_back(std::make_shared<Recorder>());
            handles.push_back(IHttpHandleInterface::Create());
            std::string url = m_Http.Url("/bytes/" + std::to_string(size));
            if (handles.back()->InitHttpReq(url.c_str(), "demo", HTTP_REQ_GET, recs.back(), 5000, 30000, nullptr) != 0 ||
                handles.back()->EnableProgress(true) != 0)
                return "FAILED: arming";
        }
        auto start = Clock::now();
        for (auto& h : handles) m_Frame->AddHttpReq(h, false, nullptr, nullptr);
        int progress = 0;
        bool allRight = true;
        for (int i = 0; i < kCount; ++i) {
            auto f = recs[i]->finished.get_future();
            bool ok = f.wait_for(30s) == std::future_status::ready && f.get() == 0 &&
                      handles[i]->GetResponse() == testsupport::DeterministicBytes((1u << 20) * (i + 1));
            allRight = allRight && ok;
            progress += recs[i]->progressCalls;
            Delete(handles[i]);
        }
        double secs = SecondsBetween(start, Clock::now());
        if (!allRight || progress == 0) return "FAILED: a body was wrong or no progress was reported";
        return std::to_string(kCount) + " at once, " + FormatBytes(static_cast<double>(total)) + " byte-exact in " +
               FormatSeconds(secs) + ", " + std::to_string(progress) + " progress reports";
    }

    std::string Post() {
        auto rec = std::make_shared<Recorder>();
        auto handle = IHttpHandleInterface::Create();
        handle->InitHttpReq(m_Http.Url("/echo").c_str(), "demo", HTTP_REQ_POST, rec, 5000, 30000, nullptr);
        handle->SetPostFields("greeting=hello+netloop");
        handle->SetHeaders({"X-Demo: post"});
        int rc = RunTransfer(handle, rec);
        const std::string& body = handle->GetResponse();
        bool ok = rc == 0 && body.rfind("POST /echo\n", 0) == 0 && body.find("X-Demo: post") != std::string::npos &&
                  body.size() > 22 && body.compare(body.size() - 22, 22, "greeting=hello+netloop") == 0;
        Delete(handle);
        return ok ? "body and header echoed by the server" : "FAILED: echo did not match";
    }

    std::string Upload() {
        const uint64_t kSize = 8u << 20;
        auto rec = std::make_shared<Recorder>();
        uint64_t offset = 0;
        rec->upload = [&](char* buffer, size_t room) {
            size_t n = static_cast<size_t>(std::min<uint64_t>(std::min<size_t>(room, 10007), kSize - offset));
            testsupport::FillDeterministicBytes(offset, buffer, n);
            offset += n;
            return n;
        };
        auto handle = IHttpHandleInterface::Create();
        handle->InitHttpReq(m_Http.Url("/upload").c_str(), "demo", HTTP_REQ_UPLOAD, rec, 5000, 30000, nullptr);
        handle->SetUploadSize(static_cast<curl_off_t>(kSize));
        int rc = RunTransfer(handle, rec);
        std::string expect = "size=" + std::to_string(kSize) + " sha256=" + testsupport::DeterministicSha256(kSize);
        bool ok = rc == 0 && handle->GetResponse() == expect;
        Delete(handle);
        return ok ? FormatBytes(kSize) + " in odd pieces, server's SHA-256 matches" : "FAILED: server saw other bytes";
    }

    std::string DownloadToFile() {
        const uint64_t kSize = 16u << 20;
        char dir[] = "/tmp/netloop-demo-XXXXXX";
        if (::mkdtemp(dir) == nullptr) return "FAILED: no temp folder";
        std::string path = std::string(dir) + "/new/folder/body.bin";
        auto rec = std::make_shared<Recorder>();
        auto handle = IHttpHandleInterface::Create();
        handle->InitHttpReq(m_Http.Url("/bytes/" + std::to_string(kSize)).c_str(), "demo", HTTP_REQ_GET, rec, 5000,
                            30000, nullptr);
        bool ok = handle->SetOutputFile(path.c_str()) == 0 && RunTransfer(handle, rec) == 0;
        Delete(handle);  // closes the file
        std::string content;
        if (FILE* f = std::fopen(path.c_str(), "rb")) {
            content.resize(kSize + 1);
            content.resize(std::fread(&content[0], 1, content.size(), f));
            std::fclose(f);
        }
        ok = ok && content == testsupport::DeterministicBytes(kSize) && handle->GetResponse().empty();
        std::system((std::string("rm -rf ") + dir).c_str());
        return ok ? FormatBytes(kSize) + " written under a new folder, byte-exact" : "FAILED: file content differs";
    }

    std::string Https() {
        auto fetch = [&](const char* ca) {
            auto rec = std::make_shared<Recorder>();
            auto handle = IHttpHandleInterface::Create();
            handle->InitHttpReq(m_Https.Url("/fixed").c_str(), "demo", HTTP_REQ_GET, rec, 5000, 30000, nullptr);
            if (ca != nullptr) handle->SetCaPath(ca);
            int rc = RunTransfer(handle, rec);
            bool ok = rc == 0 && handle->GetResponse() == "hello netloop";
            Delete(handle);
            return ok;
        };
        bool trusted = fetch(testsupport::TestTls().caFile.c_str());
        bool unknown = fetch(nullptr);  // libcurl's own CA store does not know the test certificate
        if (!trusted) return "FAILED: verified transfer did not succeed";
        if (unknown) return "FAILED: an unknown certificate was accepted";
        return "verified against the test CA; an unknown CA is refused";
    }

    std::string WebSocket() {
        auto rec = std::make_shared<Recorder>();
        auto handle = IHttpHandleInterface::Create();
        handle->InitHttpReq(m_Ws.Url("/echo").c_str(), "demo", HTTP_REQ_WEBSOCKET, rec, 5000, 0, nullptr);
        m_Frame->AddHttpReq(handle, false, nullptr, nullptr);
        auto send = [&](const std::string& text) {
            size_t sent = 0;
            handle->SendWsData(std::make_shared<std::vector<uint8_t>>(text.begin(), text.end()), WS_MSG_TEXT, &sent);
        };
        auto waitMessages = [&](size_t n) {
            for (int i = 0; i < 1000 && rec->MessageCount() < n; ++i) std::this_thread::sleep_for(10ms);
            return rec->MessageCount() >= n;
        };
        send("hello over WebSocket");
        send("cmd:frag 3 one message in three frames");
        bool ok = waitMessages(2);
        std::vector<std::pair<int, std::string>> got;
        {
            std::lock_guard<std::mutex> lock(rec->mutex);
            got = rec->messages;
        }
        Delete(handle);
        if (!ok || got[0] != std::make_pair(1, std::string("hello over WebSocket")) ||
            got[1] != std::make_pair(1, std::string("one message in three frames")))
            return "FAILED: echo or reassembly did not match";
        return "echo received; 3 frames delivered as one message";
    }

    std::string Timers() {
        std::atomic<int> oneShot{0}, repeating{0}, closes{0};
        auto once = ITimerHandleInterface::Create([&](std::shared_ptr<ITimerHandleInterface>, void*) { ++oneShot; },
                                                  [&](std::shared_ptr<ITimerHandleInterface>, void*) { ++closes; }, 20,
                                                  0, nullptr);
        auto beat = ITimerHandleInterface::Create([&](std::shared_ptr<ITimerHandleInterface>, void*) { ++repeating; },
                                                  [&](std::shared_ptr<ITimerHandleInterface>, void*) { ++closes; }, 10,
                                                  30, nullptr);
        std::promise<void> added;
        std::atomic<int> adds{0};
        auto onAdd = [&](std::shared_ptr<ITimerHandleInterface>, void*, int rc) {
            if (rc == 0 && ++adds == 2) added.set_value();
        };
        m_Frame->AddTimerReq(once, false, onAdd, nullptr);
        m_Frame->AddTimerReq(beat, false, onAdd, nullptr);
        if (added.get_future().wait_for(5s) != std::future_status::ready) return "FAILED: add";
        std::this_thread::sleep_for(200ms);
        std::promise<void> stopped;
        beat->StopTimer([&](std::shared_ptr<ITimerHandleInterface>, void*, int) { stopped.set_value(); }, nullptr);
        stopped.get_future().wait_for(5s);
        int beforeStop = repeating;
        std::this_thread::sleep_for(150ms);
        bool held = repeating == beforeStop;
        beat->AgainTimer(nullptr, nullptr);
        std::this_thread::sleep_for(150ms);
        bool resumed = repeating > beforeStop;
        m_Frame->DelTimerReq(once, false, nullptr, nullptr);
        m_Frame->DelTimerReq(beat, false, nullptr, nullptr);
        for (int i = 0; i < 500 && closes < 2; ++i) std::this_thread::sleep_for(10ms);
        if (oneShot != 1 || beforeStop < 3 || !held || !resumed || closes != 2) return "FAILED: timer counts";
        return "one-shot fired once, repeating fired " + std::to_string(repeating.load()) +
               " times, held while stopped, resumed";
    }

    std::string Udp() {
        class Notice : public IUdpHandleNotic {
        public:
            std::promise<std::string> reply;
            std::atomic<bool> got{false};
            void OnUdpState(std::shared_ptr<IUdpHandleInterface>, int, void*) override {}
            void OnUdpData(const char* data, int64_t size, const char* peer, void*) override {
                if (!got.exchange(true)) reply.set_value(std::string(peer) + " " + std::string(data, size));
            }
        };
        auto notice = std::make_shared<Notice>();
        auto udp = IUdpHandleInterface::Create(notice, "localhost", m_Udp.Port(), nullptr);
        std::promise<int> connected;
        m_Frame->AddUdpReq(udp, false, [&](std::shared_ptr<IUdpHandleInterface>, void*, int rc) { connected.set_value(rc); },
                           nullptr);
        auto c = connected.get_future();
        bool ok = c.wait_for(10s) == std::future_status::ready && c.get() == 0;
        std::string reply;
        if (ok) {
            std::string text = "ping";
            udp->SendUdpData(std::make_shared<std::vector<uint8_t>>(text.begin(), text.end()));
            auto r = notice->reply.get_future();
            ok = r.wait_for(5s) == std::future_status::ready;
            if (ok) reply = r.get();
        }
        std::promise<void> deleted;
        m_Frame->DelUdpReq(udp, false, [&](std::shared_ptr<IUdpHandleInterface>, void*, int) { deleted.set_value(); },
                           nullptr);
        deleted.get_future().wait_for(5s);
        if (!ok || reply != "127.0.0.1 ping") return "FAILED: no echo from localhost";
        return "\"localhost\" resolved, echo came back from 127.0.0.1";
    }

    std::string StopFrame() {
        auto start = Clock::now();
        bool ok = m_Frame->Stop(false) == 0;
        double ms = SecondsBetween(start, Clock::now()) * 1000.0;
        m_Frame.reset();
        char detail[96];
        std::snprintf(detail, sizeof(detail), "every handle deleted, loop thread joined in %.1f ms", ms);
        return ok ? detail : "FAILED: Stop refused";
    }

    testsupport::HttpTestServer m_Http;
    testsupport::HttpTestServer m_Https;
    testsupport::WsTestServer m_Ws;
    testsupport::UdpEchoPeer m_Udp;
    std::shared_ptr<IHttpInterface> m_Frame;
    std::vector<Line> m_Lines;
};

}  // namespace

int RunDemo(int argc, char** argv) {
    for (int i = 2; i < argc; ++i) {
        if (std::string(argv[i]) == "--help" || std::string(argv[i]) == "-h") {
            std::printf("usage: netloop demo [-v]\nStarts HTTP, HTTPS, WebSocket and UDP servers on loopback and shows\n"
                        "each capability of the library working against them.\n");
            return 0;
        }
    }
    bool verbose = argc > 2 && (std::string(argv[2]) == "-v" || std::string(argv[2]) == "--verbose");
    ToolLogger::Install(verbose);
    Demo demo;
    return demo.Run();
}

}  // namespace tool
