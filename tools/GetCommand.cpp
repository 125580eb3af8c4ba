// netloop get: downloads URLs concurrently on one frame.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <set>

#include "Commands.h"
#include "Output.h"
#include "ProgressView.h"
#include "TransferOptions.h"

namespace tool {
namespace {

using netloop::IHttpHandleInterface;

// Runs transfers on the loop thread, at most `jobs` at once.
class TransferRunner : public netloop::IHttpHandleNotic, public std::enable_shared_from_this<TransferRunner> {
public:
    TransferRunner(std::shared_ptr<netloop::IHttpInterface> frame, TransferList& transfers, size_t jobs,
                   const HttpOptions& http, const TransferOptions& options, Latch& allDone)
        : m_Frame(std::move(frame)), m_Transfers(transfers), m_Jobs(jobs), m_Http(http), m_Options(options),
          m_AllDone(allDone) {}

    // Application thread: starts the first batch.
    void Begin() {
        for (size_t i = 0; i < std::min(m_Jobs, m_Transfers.size()); ++i) StartNext();
    }
    void StopStarting() { m_Stopping = true; }

    void OnWsData(const char*, size_t, int, void*) override {}
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char*, size_t, size_t, void*) override { return 0; }
    void OnProgress(const char*, const char*, curl_off_t dltotal, curl_off_t dlnow, curl_off_t, curl_off_t,
                    void* userData) override {
        auto* t = static_cast<Transfer*>(userData);
        t->now = dlnow;
        t->total = dltotal;
        const curl_off_t cap = m_Options.maxSize;
        if (cap > 0 && (dlnow > cap || dltotal > cap) && t->why.empty()) {
            // Ended from inside libcurl: the delete runs after this call and
            // no OnFinish follows it.
            t->why = "the body is larger than --max-size (" + std::to_string(cap) + " bytes)";
            End(*t, t->handle, -2);
        }
    }
    void OnFinish(std::shared_ptr<IHttpHandleInterface> handle, int result, void* userData) override {
        End(*static_cast<Transfer*>(userData), std::move(handle), result);
    }

private:
    // Reads what the transfer left before the handle is torn down.
    void End(Transfer& t, std::shared_ptr<IHttpHandleInterface> handle, int result) {
        auto done = [this, &t, result](std::shared_ptr<IHttpHandleInterface> h, void*, int) {
            CaptureFacts(*h, result, t.facts);
            Complete(t);
        };
        if (m_Frame->DelHttpReq(std::move(handle), false, done, nullptr) != 0) Complete(t);
    }

    void Complete(Transfer& t) {
        t.end = Clock::now();
        if (t.why.empty()) t.why = FailureReason(t.facts);
        t.bytes = t.facts.haveInfo ? t.facts.info.bytesReceived : t.now.load();
        t.running = false;
        t.finished = true;
        StartNext();
        m_AllDone.CountDown();
    }

    void Fail(Transfer& t, const std::string& why) {
        t.start = Clock::now();
        t.why = why;
        Complete(t);
    }

    // Arms the transfer's handle; returns why it could not.
    std::string Arm(Transfer& t) {
        std::string error;
        if (t.handle->InitHttpReq(t.url.c_str(), t.url.c_str(), netloop::HTTP_REQ_GET, shared_from_this(),
                                  static_cast<int>(m_Http.connectTimeoutMs), static_cast<int>(m_Http.timeoutMs),
                                  &t) != 0)
            return "not a URL the library accepts";
        if (!ApplyHttpOptions(*t.handle, m_Http)) error = "the library refused a TLS option or header";
        if (error.empty()) ApplyTransferOptions(*t.handle, m_Options, error);
        if (error.empty() && t.handle->EnableProgress(true) != 0) error = "progress reports were refused";
        if (error.empty() && !t.target.empty() && !t.file.Create(t.target, error)) return Disarm(t, error);
        const std::string sink = t.target.empty() ? t.sinkPath : t.file.TempPath();
        if (error.empty() && !sink.empty() && t.handle->SetOutputFile(sink.c_str()) != 0)
            error = "cannot write " + (t.target.empty() ? sink : t.target);
        return error.empty() ? error : Disarm(t, error);
    }

    std::string Disarm(Transfer& t, const std::string& why) {
        m_Frame->DelHttpReq(t.handle, false, nullptr, nullptr);
        return why;
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
        std::string why = Arm(*t);
        if (!why.empty()) return Fail(*t, why);
        t->running = true;
        if (m_Frame->AddHttpReq(t->handle, false, nullptr, nullptr) != 0) {
            t->running = false;
            Fail(*t, "the frame refused the transfer");
        }
    }

    std::shared_ptr<netloop::IHttpInterface> m_Frame;
    TransferList& m_Transfers;
    size_t m_Jobs;
    HttpOptions m_Http;
    TransferOptions m_Options;
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

void GetUsage(FILE* out) {
    std::fprintf(out,
                 "usage: netloop get URL... [-j N] [-o DIR] [options]\n"
                 "Downloads the URLs concurrently on one frame, at most N at once (default 4).\n"
                 "Bodies go to DIR (file names from the URLs, .1, .2 ... added to repeats) or, for one\n"
                 "URL without -o, to stdout; with several URLs and no -o they are counted, not kept.\n"
                 "A file appears under its name only when its transfer succeeded. A transfer\n"
                 "succeeds when it completes with a 2xx status; without -L a redirect is a failure.\n"
                 "Exit status 0 when every transfer succeeded and all output was written.\n\n"
                 "  -j, --jobs N              transfers at once (1..1000)\n"
                 "  -o, --output DIR          save the bodies in DIR (created when missing)\n"
                 "%s%s",
                 kTransferOptionsHelp, kHttpOptionsHelp);
}

}  // namespace
}  // namespace tool

namespace tool {
namespace {

struct GetArgs {
    HttpOptions http;
    TransferOptions options;
    std::vector<std::string> urls;
    std::string outDir;
    long jobs = 4;
};

// Reads the command line; returns the error, empty when it is fine.
std::string ParseGetArgs(int argc, char** argv, GetArgs& a, bool& help) {
    ArgReader args(argc, argv, 2);
    std::string value, error;
    while (!args.Done() && error.empty()) {
        if (args.Flag("--help", "-h")) return help = true, "";
        if (args.Value("-j", "--jobs", value, error)) {
            if (error.empty() && !ParseInt(value, 1, 1000, a.jobs)) error = "-j wants a number from 1 to 1000";
        } else if (args.Value("-o", "--output", a.outDir, error)) {
        } else if (ReadHttpOption(args, a.http, error) || ReadTransferOption(args, a.options, error)) {
        } else if (!args.Peek().empty() && args.Peek()[0] == '-') {
            error = "unknown option " + args.Next();
        } else {
            a.urls.push_back(args.Next());
        }
    }
    if (error.empty() && a.urls.empty()) error = "no URL given";
    if (error.empty() && a.options.includeHeaders && (!a.outDir.empty() || a.urls.size() > 1))
        error = "-i puts the headers before a body on stdout: one URL, no -o (use -D FILE)";
    return error;
}

// Where each body goes: DIR/name for -o, stdout (through `relay`) or a
// temporary file when headers come first, nothing for HEAD, /dev/null for
// several URLs without -o.
void PlanOutputs(const GetArgs& a, TransferList& transfers, const std::string& stdoutSink, bool headersFirst) {
    std::set<std::string> names;
    for (const std::string& url : a.urls) {
        auto t = std::make_unique<Transfer>();
        t->url = url;
        if (a.options.head) {
            t->shownAs = "headers on stdout";
        } else if (!a.outDir.empty()) {
            std::string name = FileNameOf(url), unique = name;
            for (int n = 1; !names.insert(unique).second; ++n) unique = name + "." + std::to_string(n);
            t->target = t->shownAs = a.outDir + "/" + unique;
        } else if (a.urls.size() == 1) {
            t->shownAs = headersFirst ? "stdout, after the headers" : "stdout";
            t->sinkPath = stdoutSink;
        } else {
            t->sinkPath = "/dev/null";
            t->shownAs = "(not kept)";
        }
        transfers.push_back(std::move(t));
    }
}

// Runs every transfer to its end; false when the guard time ran out first.
bool RunTransfers(const GetArgs& a, TransferList& transfers, FILE* report) {
    // HTTP/2, and with it many streams on one connection, comes only over
    // TLS; a frame that multiplexes also holds each host to two connections,
    // which would leave plain HTTP/1.1 downloads two at a time.
    bool multiplex = false;
    for (const auto& t : transfers) multiplex |= transfers.size() > 1 && t->url.compare(0, 8, "https://") == 0;
    // Declared before the frame: a done function that the frame's stop still
    // runs counts down on it.
    Latch allDone(static_cast<int>(transfers.size()));
    RunningFrame frame(multiplex);
    if (!frame.Ok()) {
        for (auto& t : transfers) t->why = "the frame did not start";
        return false;
    }
    auto runner = std::make_shared<TransferRunner>(frame.Get(), transfers, static_cast<size_t>(a.jobs), a.http,
                                                   a.options, allDone);
    ProgressView view(report, transfers);
    runner->Begin();
    // Each transfer carries its own limits; this guard only catches a hang,
    // even when connection limits run the transfers one after another.
    const auto limit = a.http.timeoutMs > 0
                           ? std::chrono::milliseconds((a.http.timeoutMs + 10000) * static_cast<long>(transfers.size()))
                           : std::chrono::hours(24 * 365);
    bool finished = allDone.WaitFor(std::chrono::milliseconds(200), [&] { if (!a.options.silent) view.Refresh(); },
                                    limit);
    if (!a.options.silent) view.Finish();
    if (!finished) {
        runner->StopStarting();
        for (auto& t : transfers) {
            if (t->running && !t->finished) frame->DelHttpReq(t->handle, false, nullptr, nullptr);
            if (!t->finished) t->why = "did not end in time";
        }
    }
    return finished;
}

// The library counts the bytes as they came, before decoding; only a body
// that was not compressed can be checked against that count.
bool CountComparable(const Transfer& t, const TransferOptions& options) {
    return t.Succeeded() && t.facts.haveInfo && !options.compressed;
}

// Renames the files of the successful transfers to their names and removes
// the rest; the frame has stopped, so every file is closed.
void SettleFiles(TransferList& transfers, const TransferOptions& options) {
    for (auto& tp : transfers) {
        Transfer& t = *tp;
        if (t.target.empty() || t.file.TempPath().empty()) continue;
        const int64_t size = t.file.Size();
        if (CountComparable(t, options) && size != t.facts.info.bytesReceived)
            t.why = "the file holds " + std::to_string(size) + " of " + std::to_string(t.facts.info.bytesReceived) +
                    " bytes received";
        t.bytes = std::max<int64_t>(size, 0);
        std::string error;
        const bool httpError = t.finished && t.facts.result == 0 && t.facts.status >= 400;
        if (t.Succeeded() || (options.failWithBody && httpError)) {
            if (!t.file.Commit(error)) t.why = error;
        } else {
            t.file.Discard();
            t.shownAs = "(no file)";
        }
    }
}

// Copies a finished file to stdout with checked writes.
bool CopyToStdout(const std::string& path, std::string& error) {
    FILE* in = std::fopen(path.c_str(), "rb");
    if (in == nullptr) return error = "cannot read " + path, false;
    char buffer[65536];
    bool ok = true;
    for (size_t n; ok && (n = std::fread(buffer, 1, sizeof(buffer), in)) > 0;)
        ok = WriteAll(stdout, std::string(buffer, n), error);
    std::fclose(in);
    return ok;
}

// Headers (-i, -I, -D) and -w lines, in the order curl prints them.
bool PrintResults(const GetArgs& a, TransferList& transfers, const StagedFile& headersFirstBody, std::string& error) {
    std::string headers, warnings;
    for (auto& t : transfers) headers += HeaderBlock(t->facts);
    const bool headersToStdout = a.options.head || a.options.includeHeaders || a.options.headerFile == "-";
    if (!a.options.headerFile.empty() && a.options.headerFile != "-") {
        FILE* f = std::fopen(a.options.headerFile.c_str(), "wb");
        bool ok = f != nullptr && WriteAll(f, headers, error);
        if (f != nullptr && std::fclose(f) != 0) ok = false;
        if (!ok) return error = "cannot write " + a.options.headerFile + (error.empty() ? "" : ": " + error), false;
    }
    if (headersToStdout && !WriteAll(stdout, headers, error)) return false;
    if (!headersFirstBody.TempPath().empty() && transfers[0]->finished &&
        !CopyToStdout(headersFirstBody.TempPath(), error))
        return false;
    for (auto& t : transfers) {
        if (a.options.writeOut.empty()) break;
        std::string text = ExpandWriteOut(a.options.writeOut, t->facts, t->target, warnings);
        if (!WriteAll(stdout, text, error)) return false;
    }
    if (!warnings.empty()) std::fprintf(stderr, "netloop get: %s", warnings.c_str());
    return FlushStdout(error);
}

// A body on stdout streams through a pipe, or waits in a temporary file
// when the headers come first. Returns what the library writes to; empty
// with `error` when neither can be made.
std::string PrepareStdout(bool headersFirst, StdoutRelay& relay, StagedFile& held, std::string& error) {
    if (!headersFirst) return relay.Start(error) ? relay.WriterPath() : "";
    const char* tmp = std::getenv("TMPDIR");
    return held.Create(std::string(tmp && *tmp ? tmp : "/tmp") + "/netloop-body", error) ? held.TempPath() : "";
}

// Ends the copy to stdout and holds it against what the library received.
void CheckRelayed(StdoutRelay& relay, Transfer& t, const TransferOptions& options) {
    std::string error;
    if (!relay.Finish(error)) t.why = error;
    else if (CountComparable(t, options) && relay.Copied() != t.facts.info.bytesReceived)
        t.why = "stdout got " + std::to_string(relay.Copied()) + " of " + std::to_string(t.facts.info.bytesReceived) +
                " bytes received";
}

// The summary and every failure's reason; returns the number of failures.
int ReportOutcome(const GetArgs& a, const TransferList& transfers, FILE* report, std::string& error) {
    int failures = 0;
    for (auto& t : transfers) failures += !t->Succeeded();
    // The reasons end the summary; on its own, stderr gets them.
    FILE* reasons = a.options.silent ? stderr : report;
    if (!a.options.silent) PrintSummary(report, transfers);
    for (auto& t : transfers)
        if (!t->Succeeded()) std::fprintf(reasons, "netloop get: %s: %s\n", t->url.c_str(), t->why.c_str());
    if (failures > 0 && reasons != stderr)
        std::fprintf(stderr, "netloop get: %d of %zu transfers failed\n", failures, transfers.size());
    std::fflush(report);
    return failures;
}

}  // namespace

int RunGet(int argc, char** argv) {
    GetArgs a;
    bool help = false;
    std::string error = ParseGetArgs(argc, argv, a, help);
    if (help) return GetUsage(stdout), 0;
    if (!error.empty()) {
        std::fprintf(stderr, "netloop get: %s (see netloop get --help)\n", error.c_str());
        return 2;
    }
    ToolLogger::Install(a.http.verbose);
    const bool single = a.outDir.empty() && a.urls.size() == 1 && !a.options.head;
    const bool headersFirst = single && (a.options.includeHeaders || a.options.headerFile == "-");
    const bool stdoutBusy = single || a.options.head || !a.options.writeOut.empty() || a.options.headerFile == "-";
    FILE* report = stdoutBusy ? stderr : stdout;

    StdoutRelay relay;
    StagedFile held;
    const std::string sink = single ? PrepareStdout(headersFirst, relay, held, error) : "";
    if (single && sink.empty()) {
        std::fprintf(stderr, "netloop get: %s\n", error.c_str());
        return 1;
    }
    TransferList transfers;
    PlanOutputs(a, transfers, sink, headersFirst);
    const bool finished = RunTransfers(a, transfers, report);
    if (!finished) std::fprintf(stderr, "netloop get: transfers did not end in time\n");
    SettleFiles(transfers, a.options);
    if (single && !headersFirst) CheckRelayed(relay, *transfers[0], a.options);
    bool printed = PrintResults(a, transfers, held, error);
    held.Discard();
    if (!printed) std::fprintf(stderr, "netloop get: writing the output failed: %s\n", error.c_str());
    const int failures = ReportOutcome(a, transfers, report, error);
    // The summary on stdout is output like any other: it has to arrive.
    if (printed && report == stdout && !FlushStdout(error)) {
        std::fprintf(stderr, "netloop get: writing the summary failed: %s\n", error.c_str());
        printed = false;
    }
    return finished && printed && failures == 0 ? 0 : 1;
}

}  // namespace tool
