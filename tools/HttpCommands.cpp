// netloop get / post / put: HTTP(S) transfers on one frame.
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <set>

#include "Commands.h"
#include "ToolCommon.h"

namespace tool {
namespace {

using netloop::IHttpHandleInterface;

// One URL of a run and everything learned about it.
struct Transfer {
    std::string url;
    std::string path;  // output file, empty: memory
    std::shared_ptr<IHttpHandleInterface> handle;
    std::atomic<int64_t> now{0};
    std::atomic<int64_t> total{0};
    std::atomic<bool> running{false};
    std::atomic<bool> finished{false};
    Clock::time_point start, end;
    int result = -1;   // OnFinish's result; -1 until then
    long status = 0;
    int64_t bytes = 0;
    std::string why;   // failure text
    bool Succeeded() const { return result == 0 && status >= 200 && status < 400; }
};

// Runs transfers on the loop thread, at most `jobs` at once.
class TransferRunner : public netloop::IHttpHandleNotic, public std::enable_shared_from_this<TransferRunner> {
public:
    TransferRunner(std::shared_ptr<netloop::IHttpInterface> frame, std::vector<std::unique_ptr<Transfer>>& transfers,
                   size_t jobs, const HttpOptions& options, Latch& allDone)
        : m_Frame(std::move(frame)), m_Transfers(transfers), m_Jobs(jobs), m_Options(options), m_AllDone(allDone) {}

    // Application thread: starts the first batch.
    void StopStarting() { m_Stopping = true; }
    void Begin() {
        for (size_t i = 0; i < std::min(m_Jobs, m_Transfers.size()); ++i) StartNext();
    }

    void OnWsData(const char*, size_t, int, void*) override {}
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char*, size_t, size_t, void*) override { return 0; }
    void OnProgress(const char*, const char*, curl_off_t dltotal, curl_off_t dlnow, curl_off_t, curl_off_t,
                    void* userData) override {
        auto* t = static_cast<Transfer*>(userData);
        t->now = dlnow;
        t->total = dltotal;
    }
    void OnFinish(std::shared_ptr<IHttpHandleInterface> handle, int result, void* userData) override {
        auto* t = static_cast<Transfer*>(userData);
        t->end = Clock::now();
        t->result = result;
        t->status = handle->GetResponseCode();
        t->bytes = static_cast<int64_t>(handle->GetResponse().size());
        m_Frame->DelHttpReq(handle, false, [this, t](std::shared_ptr<IHttpHandleInterface>, void*, int) {
            Complete(*t);
        }, nullptr);
    }

    void Fail(Transfer& t, const std::string& why) {
        t.end = t.start = Clock::now();
        t.why = why;
        Complete(t);
    }

private:
    void Complete(Transfer& t) {
        if (!t.path.empty()) t.bytes = t.now;  // the file's own size is known after teardown
        t.running = false;
        t.finished = true;
        StartNext();
        m_AllDone.CountDown();
    }

    void StartNext() {
        Transfer* t = nullptr;
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            if (m_Stopping || m_Next >= m_Transfers.size()) return;
            t = m_Transfers[m_Next++].get();
        }
        t->handle = IHttpHandleInterface::Create();
        t->start = Clock::now();
        if (t->handle->InitHttpReq(t->url.c_str(), t->url.c_str(), netloop::HTTP_REQ_GET, shared_from_this(),
                                   static_cast<int>(m_Options.connectTimeoutMs), static_cast<int>(m_Options.timeoutMs),
                                   t) != 0) {
            return Fail(*t, "not a URL libcurl accepts");
        }
        if (!ApplyHttpOptions(*t->handle, m_Options) || t->handle->EnableProgress(true) != 0 ||
            (!t->path.empty() && t->handle->SetOutputFile(t->path.c_str()) != 0)) {
            m_Frame->DelHttpReq(t->handle, false, nullptr, nullptr);
            return Fail(*t, t->path.empty() ? "bad option" : "cannot write " + t->path);
        }
        t->running = true;
        if (m_Frame->AddHttpReq(t->handle, false, nullptr, nullptr) != 0) {
            t->running = false;
            Fail(*t, "frame refused the transfer");
        }
    }

    std::shared_ptr<netloop::IHttpInterface> m_Frame;
    std::vector<std::unique_ptr<Transfer>>& m_Transfers;
    size_t m_Jobs;
    HttpOptions m_Options;
    Latch& m_AllDone;
    std::mutex m_Mutex;
    size_t m_Next = 0;
    std::atomic<bool> m_Stopping{false};
};

// The last path segment of a URL, or "index.html".
std::string FileNameOf(const std::string& url) {
    std::string path = url;
    size_t scheme = path.find("://");
    path = scheme == std::string::npos ? path : path.substr(scheme + 3);
    path = path.substr(0, path.find_first_of("?#"));
    size_t slash = path.find('/');
    if (slash == std::string::npos) return "index.html";
    std::string name = path.substr(path.rfind('/') + 1);
    if (name.empty() || name == "." || name == "..") return "index.html";
    return name;
}

// Redraws one line per running transfer on a terminal; prints one line per
// event otherwise.
class ProgressView {
public:
    ProgressView(FILE* out, std::vector<std::unique_ptr<Transfer>>& transfers)
        : m_Out(out), m_Transfers(transfers), m_Live(IsTerminal(out)), m_Reported(transfers.size(), false),
          m_Started(transfers.size(), false) {}

    void Refresh() {
        if (m_Live) EraseLive();
        for (size_t i = 0; i < m_Transfers.size(); ++i) {
            Transfer& t = *m_Transfers[i];
            if (!m_Live && (t.running || t.finished) && !m_Started[i]) {
                m_Started[i] = true;
                std::fprintf(m_Out, "start  %s\n", t.url.c_str());
            }
            if (t.finished && !m_Reported[i]) {
                m_Reported[i] = true;
                std::fprintf(m_Out, "%s %s (%ld, %s)\n", t.Succeeded() ? "done  " : "failed", t.url.c_str(), t.status,
                             FormatBytes(static_cast<double>(t.bytes)).c_str());
            }
        }
        if (!m_Live) return;
        m_LiveLines = 0;
        const auto now = Clock::now();
        for (auto& tp : m_Transfers) {
            Transfer& t = *tp;
            if (!t.running || t.finished) continue;
            double secs = std::max(SecondsBetween(t.start, now), 1e-3);
            std::string total = t.total > 0 ? FormatBytes(static_cast<double>(t.total)) : "?";
            std::fprintf(m_Out, "  %-50.50s %10s / %-10s %12s\033[K\n", t.url.c_str(),
                         FormatBytes(static_cast<double>(t.now)).c_str(), total.c_str(),
                         FormatRate(static_cast<double>(t.now) / secs).c_str());
            ++m_LiveLines;
        }
        std::fflush(m_Out);
    }

    void Finish() {
        Refresh();
        if (m_Live) EraseLive();
    }

private:
    void EraseLive() {
        for (int i = 0; i < m_LiveLines; ++i) std::fprintf(m_Out, "\033[1A\033[2K");
        m_LiveLines = 0;
    }

    FILE* m_Out;
    std::vector<std::unique_ptr<Transfer>>& m_Transfers;
    bool m_Live;
    int m_LiveLines = 0;
    std::vector<bool> m_Reported, m_Started;
};

void PrintSummary(FILE* out, const std::vector<std::unique_ptr<Transfer>>& transfers) {
    std::fprintf(out, "\n%-48s %6s %12s %10s %14s  %s\n", "URL", "status", "bytes", "time", "speed", "result");
    for (const auto& tp : transfers) {
        const Transfer& t = *tp;
        double secs = std::max(SecondsBetween(t.start, t.end), 1e-6);
        std::string result = t.Succeeded() ? "ok" : (!t.why.empty() ? t.why : (t.result == 0 ? "HTTP error" : "failed"));
        std::fprintf(out, "%-48.48s %6ld %12s %10s %14s  %s\n", t.url.c_str(), t.status,
                     FormatBytes(static_cast<double>(t.bytes)).c_str(), FormatSeconds(secs).c_str(),
                     FormatRate(static_cast<double>(t.bytes) / secs).c_str(), result.c_str());
    }
}

void GetUsage(FILE* out) {
    std::fprintf(out,
                 "usage: netloop get URL... [-j N] [-o DIR] [-H \"Name: value\"]... [--cacert FILE] [--insecure]\n"
                 "                          [--timeout MS] [-v]\n"
                 "Downloads the URLs concurrently on one frame, at most N at once (default 4).\n"
                 "Bodies go to DIR (file names from the URLs) or, for one URL without -o, to stdout.\n"
                 "Exit status 0 when every transfer succeeded with an HTTP status below 400.\n");
}

}  // namespace

int RunGet(int argc, char** argv) {
    ArgReader args(argc, argv, 2);
    HttpOptions options;
    std::vector<std::string> urls;
    std::string outDir, value, error;
    long jobs = 4;
    while (!args.Done() && error.empty()) {
        if (args.Flag("--help", "-h")) return GetUsage(stdout), 0;
        if (args.Value("-j", "--jobs", value, error)) {
            if (error.empty() && !ParseInt(value, 1, 1000, jobs)) error = "-j wants a number from 1 to 1000";
        } else if (args.Value("-o", "--output", outDir, error)) {
        } else if (ReadHttpOption(args, options, error)) {
        } else if (!args.Peek().empty() && args.Peek()[0] == '-') {
            error = "unknown option " + args.Next();
        } else {
            urls.push_back(args.Next());
        }
    }
    if (error.empty() && urls.empty()) error = "no URL given";
    if (!error.empty()) {
        std::fprintf(stderr, "netloop get: %s (see netloop get --help)\n", error.c_str());
        return 2;
    }

    auto logger = ToolLogger::Install(options.verbose);
    std::vector<std::unique_ptr<Transfer>> transfers;
    std::set<std::string> names;
    for (const std::string& url : urls) {
        auto t = std::make_unique<Transfer>();
        t->url = url;
        if (!outDir.empty()) {
            std::string name = FileNameOf(url), unique = name;
            for (int n = 1; !names.insert(unique).second; ++n) unique = name + "." + std::to_string(n);
            t->path = outDir + "/" + unique;
        }
        transfers.push_back(std::move(t));
    }
    const bool bodyToStdout = outDir.empty() && urls.size() == 1;
    FILE* report = bodyToStdout ? stderr : stdout;

    bool finished = false;
    {
        RunningFrame frame;
        if (!frame.Ok()) {
            std::fprintf(stderr, "netloop get: the frame did not start\n");
            return 1;
        }
        Latch allDone(static_cast<int>(transfers.size()));
        auto runner =
            std::make_shared<TransferRunner>(frame.Get(), transfers, static_cast<size_t>(jobs), options, allDone);
        ProgressView view(report, transfers);
        runner->Begin();
        // Every transfer has its own time-out; this only guards against a hang.
        const auto limit = std::chrono::milliseconds(options.timeoutMs * static_cast<long>(transfers.size()) + 10000);
        finished = allDone.WaitFor(std::chrono::milliseconds(200), [&] { view.Refresh(); }, limit);
        view.Finish();
        if (!finished) {
            // Still running: end them, so the frame can stop.
            runner->StopStarting();
            for (auto& t : transfers)
                if (t->running) frame->DelHttpReq(t->handle, false, nullptr, nullptr);
            std::fprintf(stderr, "netloop get: transfers did not end in time\n");
        }
    }
    // The frame has stopped: every output file is closed and whole.
    for (auto& t : transfers) {
        struct stat st;
        if (!t->path.empty() && t->finished && ::stat(t->path.c_str(), &st) == 0) t->bytes = st.st_size;
    }

    int failures = 0;
    for (auto& t : transfers) {
        if (t->why.empty() && t->result != 0) t->why = logger->FailureFor(t->url);
        failures += !t->Succeeded();
    }
    if (bodyToStdout && transfers[0]->finished) {
        const std::string& body = transfers[0]->handle->GetResponse();
        std::fwrite(body.data(), 1, body.size(), stdout);
        std::fflush(stdout);
    }
    PrintSummary(report, transfers);
    if (failures > 0 && transfers.size() == 1)
        std::fprintf(stderr, "netloop get: %s: %s\n", transfers[0]->url.c_str(),
                     transfers[0]->why.empty() ? "HTTP error" : transfers[0]->why.c_str());
    return finished && failures == 0 ? 0 : 1;
}

// ---------------------------------------------------------------------------
// post and put: one transfer with a body

namespace {

class BodyTransfer : public netloop::IHttpHandleNotic {
public:
    BodyTransfer(FILE* source, FILE* progressOut) : m_Source(source), m_ProgressOut(progressOut) {}

    void OnWsData(const char*, size_t, int, void*) override {}
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char* buffer, size_t size, size_t nitems,
                        void*) override {
        return m_Source ? std::fread(buffer, 1, size * nitems, m_Source) : 0;
    }
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t dlnow, curl_off_t ultotal, curl_off_t ulnow,
                    void*) override {
        m_Up = ulnow;
        m_Down = dlnow;
        m_UpTotal = ultotal;
    }
    void OnFinish(std::shared_ptr<IHttpHandleInterface> handle, int result, void*) override {
        m_Result = result;
        m_Status = handle->GetResponseCode();
        m_End = Clock::now();
        m_Done.CountDown();
    }

    // Draws the upload's progress on a terminal while waiting for the end.
    bool Wait(long timeoutMs) {
        const bool live = m_ProgressOut != nullptr && IsTerminal(m_ProgressOut);
        bool ended = m_Done.WaitFor(std::chrono::milliseconds(200), [&] {
            if (!live) return;
            std::fprintf(m_ProgressOut, "\r  up %s / %s, down %s\033[K", FormatBytes(m_Up.load()).c_str(),
                         m_UpTotal > 0 ? FormatBytes(m_UpTotal.load()).c_str() : "?",
                         FormatBytes(m_Down.load()).c_str());
            std::fflush(m_ProgressOut);
        }, std::chrono::milliseconds(timeoutMs + 10000));
        if (live) std::fprintf(m_ProgressOut, "\r\033[K");
        return ended;
    }

    std::atomic<int64_t> m_Up{0}, m_Down{0}, m_UpTotal{0};
    int m_Result = -1;
    long m_Status = 0;
    Clock::time_point m_Start = Clock::now(), m_End;

private:
    FILE* m_Source;
    FILE* m_ProgressOut;
    Latch m_Done{1};
};

int RunBodyCommand(const char* name, int reqType, int argc, char** argv) {
    ArgReader args(argc, argv, 2);
    HttpOptions options;
    std::string url, data, file, error;
    bool haveData = false;
    while (!args.Done() && error.empty()) {
        if (args.Flag("--help", "-h")) {
            std::printf(reqType == netloop::HTTP_REQ_POST
                            ? "usage: netloop post URL --data TEXT [-H \"Name: value\"]... [--cacert FILE] [--insecure]\n"
                              "                        [--timeout MS] [-v]\nSends TEXT as the POST body and prints the response body.\n"
                            : "usage: netloop put URL --file PATH [-H \"Name: value\"]... [--cacert FILE] [--insecure]\n"
                              "                       [--timeout MS] [-v]\nUploads the file (HTTP PUT) and prints the response body.\n");
            return 0;
        }
        if (reqType == netloop::HTTP_REQ_POST && args.Value("--data", "-d", data, error)) {
            haveData = true;
        } else if (reqType == netloop::HTTP_REQ_UPLOAD && args.Value("--file", "-f", file, error)) {
        } else if (ReadHttpOption(args, options, error)) {
        } else {
            ReadOneUrl(args, url, error);
        }
    }
    if (error.empty() && url.empty()) error = "no URL given";
    if (error.empty() && reqType == netloop::HTTP_REQ_POST && !haveData) error = "--data is required";
    if (error.empty() && reqType == netloop::HTTP_REQ_UPLOAD && file.empty()) error = "--file is required";
    FILE* source = nullptr;
    struct stat st;
    if (error.empty() && !file.empty()) {
        source = std::fopen(file.c_str(), "rb");
        if (source == nullptr || ::fstat(::fileno(source), &st) != 0) error = "cannot read " + file;
    }
    if (!error.empty()) {
        std::fprintf(stderr, "netloop %s: %s (see netloop %s --help)\n", name, error.c_str(), name);
        if (source) std::fclose(source);
        return 2;
    }

    auto logger = ToolLogger::Install(options.verbose);
    auto transfer = std::make_shared<BodyTransfer>(source, stderr);
    auto handle = IHttpHandleInterface::Create();
    bool ended = false, armed = false;
    {
        RunningFrame frame;
        armed = frame.Ok() &&
                handle->InitHttpReq(url.c_str(), name, reqType, transfer, static_cast<int>(options.connectTimeoutMs),
                                    static_cast<int>(options.timeoutMs), nullptr) == 0;
        bool ready = armed && ApplyHttpOptions(*handle, options) && handle->EnableProgress(true) == 0 &&
                     (reqType != netloop::HTTP_REQ_POST || handle->SetPostFields(data.c_str()) == 0) &&
                     (reqType != netloop::HTTP_REQ_UPLOAD || handle->SetUploadSize(st.st_size) == 0);
        if (ready && frame->AddHttpReq(handle, false, nullptr, nullptr) == 0) ended = transfer->Wait(options.timeoutMs);
        if (armed) frame->DelHttpReq(handle, false, nullptr, nullptr);
    }
    if (source) std::fclose(source);
    if (!armed) {
        std::fprintf(stderr, "netloop %s: cannot start a transfer to %s\n", name, url.c_str());
        return 1;
    }
    const std::string& body = handle->GetResponse();
    std::fwrite(body.data(), 1, body.size(), stdout);
    std::fflush(stdout);
    double secs = std::max(SecondsBetween(transfer->m_Start, transfer->m_End), 1e-6);
    if (!ended || transfer->m_Result != 0) {
        std::string why = logger->FailureFor(url);
        std::fprintf(stderr, "netloop %s: %s: %s\n", name, url.c_str(),
                     !ended ? "no answer in time" : (why.empty() ? "transfer failed" : why.c_str()));
        return 1;
    }
    std::fprintf(stderr, "HTTP %ld, %s up, %s down, %s\n", transfer->m_Status,
                 FormatBytes(static_cast<double>(transfer->m_Up)).c_str(),
                 FormatBytes(static_cast<double>(body.size())).c_str(), FormatSeconds(secs).c_str());
    return transfer->m_Status >= 200 && transfer->m_Status < 400 ? 0 : 1;
}

}  // namespace

int RunPost(int argc, char** argv) { return RunBodyCommand("post", netloop::HTTP_REQ_POST, argc, argv); }
int RunPut(int argc, char** argv) { return RunBodyCommand("put", netloop::HTTP_REQ_UPLOAD, argc, argv); }

}  // namespace tool
