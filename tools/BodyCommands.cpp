// netloop post and put: one transfer with a request body.
#include <curl/curl.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Commands.h"
#include "Output.h"
#include "ResponseFacts.h"
#include "TransferOptions.h"

namespace tool {
namespace {

using netloop::IHttpHandleInterface;

class BodyTransfer : public netloop::IHttpHandleNotic {
public:
    BodyTransfer(FILE* source, FILE* progressOut) : m_Source(source), m_ProgressOut(progressOut) {}

    void OnWsData(const char*, size_t, int, void*) override {}
    size_t OnUploadRead(std::shared_ptr<IHttpHandleInterface>, char* buffer, size_t size, size_t nitems,
                        void*) override {
        if (m_Source == nullptr) return 0;
        size_t n = std::fread(buffer, 1, size * nitems, m_Source);
        if (n == 0 && std::ferror(m_Source)) {
            // Ending the body here would send a short body as if it were whole.
            m_ReadError = std::strerror(errno);
            return CURL_READFUNC_ABORT;
        }
        return n;
    }
    void OnProgress(const char*, const char*, curl_off_t, curl_off_t dlnow, curl_off_t ultotal, curl_off_t ulnow,
                    void*) override {
        m_Up = ulnow;
        m_Down = dlnow;
        m_UpTotal = ultotal;
    }
    void OnFinish(std::shared_ptr<IHttpHandleInterface> handle, int result, void*) override {
        CaptureFacts(*handle, result, m_Facts);
        m_End = Clock::now();
        m_Done.CountDown();
    }

    // Draws the upload's progress on a terminal while waiting for the end.
    bool Wait(long timeoutMs, bool silent) {
        const bool live = !silent && m_ProgressOut != nullptr && IsTerminal(m_ProgressOut);
        const auto limit = timeoutMs > 0 ? std::chrono::milliseconds(timeoutMs + 10000) : std::chrono::hours(24 * 365);
        bool ended = m_Done.WaitFor(std::chrono::milliseconds(200), [&] {
            if (!live) return;
            std::fprintf(m_ProgressOut, "\r  up %s / %s, down %s\033[K", FormatBytes(m_Up.load()).c_str(),
                         m_UpTotal > 0 ? FormatBytes(m_UpTotal.load()).c_str() : "?",
                         FormatBytes(m_Down.load()).c_str());
            std::fflush(m_ProgressOut);
        }, limit);
        if (live) std::fprintf(m_ProgressOut, "\r\033[K");
        return ended;
    }

    std::atomic<int64_t> m_Up{0}, m_Down{0}, m_UpTotal{0};
    ResponseFacts m_Facts;
    std::string m_ReadError;
    Clock::time_point m_Start = Clock::now(), m_End;

private:
    FILE* m_Source;
    FILE* m_ProgressOut;
    Latch m_Done{1};
};

struct BodyArgs {
    HttpOptions http;
    TransferOptions options;
    std::string url, data, file;
    bool haveData = false;
};

void BodyUsage(int reqType) {
    if (reqType == netloop::HTTP_REQ_POST)
        std::printf("usage: netloop post URL (--data TEXT | --data @FILE | --data-file FILE) [options]\n"
                    "Sends the body with POST and prints the response body. @- and --data-file - read\n"
                    "stdin; a file's bytes go as they are, streamed when their size is unknown.\n\n");
    else
        std::printf("usage: netloop put URL --file PATH [options]\n"
                    "Uploads the file with PUT and prints the response body. PATH - is stdin; a pipe\n"
                    "is streamed (chunked) as its size is unknown.\n\n");
    std::printf("%s%s", kTransferOptionsHelp, kHttpOptionsHelp);
}

std::string ParseBodyArgs(int reqType, int argc, char** argv, BodyArgs& a, bool& help) {
    ArgReader args(argc, argv, 2);
    std::string error;
    const bool post = reqType == netloop::HTTP_REQ_POST;
    while (!args.Done() && error.empty()) {
        if (args.Flag("--help", "-h")) return help = true, "";
        if (post && args.Value("--data", "-d", a.data, error)) {
            a.haveData = true;
            if (a.data.compare(0, 1, "@") == 0) a.file = a.data.substr(1);
        } else if (post && args.Value("--data-file", nullptr, a.file, error)) {
            a.haveData = true;
        } else if (!post && args.Value("--file", "-f", a.file, error)) {
        } else if (!ReadHttpOption(args, a.http, error) && !ReadTransferOption(args, a.options, error)) {
            ReadOneUrl(args, a.url, error);
        }
    }
    if (error.empty() && a.url.empty()) error = "no URL given";
    if (error.empty() && post && !a.haveData) error = "--data or --data-file is required";
    if (error.empty() && !post && a.file.empty()) error = "--file is required";
    return error;
}

// Opens the body's source; `size` is -1 when only reading will tell (a pipe).
FILE* OpenSource(const std::string& path, curl_off_t& size, std::string& error) {
    FILE* source = path == "-" ? stdin : std::fopen(path.c_str(), "rb");
    struct stat st;
    if (source == nullptr || ::fstat(::fileno(source), &st) != 0) {
        error = "cannot read " + path + ": " + std::strerror(errno);
        if (source != nullptr && source != stdin) std::fclose(source);
        return nullptr;
    }
    size = S_ISREG(st.st_mode) ? static_cast<curl_off_t>(st.st_size) : -1;
    return source;
}

bool HasHeader(const std::list<std::string>& headers, const char* name) {
    const size_t len = std::strlen(name);
    for (const std::string& h : headers)
        if (h.size() > len && h[len] == ':' && strncasecmp(h.c_str(), name, len) == 0) return true;
    return false;
}

// Arms the handle with the body: the text of --data as POST fields, a file or
// stdin as an upload that the source feeds (sent with POST for `post`).
bool ArmBody(IHttpHandleInterface& handle, int reqType, BodyArgs& a, curl_off_t size, std::string& error) {
    if (!ApplyHttpOptions(handle, a.http)) return error = "the library refused a TLS option or header", false;
    if (!ApplyTransferOptions(handle, a.options, error)) return false;
    if (handle.EnableProgress(true) != 0) return error = "progress reports were refused", false;
    if (reqType == netloop::HTTP_REQ_POST && a.file.empty()) {
        if (handle.SetPostFields(a.data.c_str()) != 0) return error = "the POST body was refused", false;
        return true;
    }
    if (handle.SetUploadSize(size) != 0) return error = "the body size was refused", false;
    return true;
}

int Finish(const char* name, const BodyArgs& a, BodyTransfer& transfer, IHttpHandleInterface& handle, bool ended) {
    const ResponseFacts& facts = transfer.m_Facts;
    std::string error, warnings, out;
    if (a.options.includeHeaders || a.options.head || a.options.headerFile == "-") out += HeaderBlock(facts);
    if (!a.options.head) out += handle.GetResponse();
    if (!a.options.writeOut.empty()) out += ExpandWriteOut(a.options.writeOut, facts, "", warnings);
    if (!warnings.empty()) std::fprintf(stderr, "netloop %s: %s", name, warnings.c_str());
    bool written = WriteAll(stdout, out, error);
    if (written && !a.options.headerFile.empty() && a.options.headerFile != "-") {
        FILE* f = std::fopen(a.options.headerFile.c_str(), "wb");
        written = f != nullptr && WriteAll(f, HeaderBlock(facts), error);
        if (f != nullptr && std::fclose(f) != 0) written = false;
        if (!written) error = "cannot write " + a.options.headerFile + (error.empty() ? "" : ": " + error);
    }
    std::string why = !ended ? "no answer in time"
                      : !transfer.m_ReadError.empty() ? "reading the body failed: " + transfer.m_ReadError
                                                      : FailureReason(facts);
    if (why.empty() && !written) why = "writing the output failed: " + error;
    if (!why.empty()) {
        std::fprintf(stderr, "netloop %s: %s: %s\n", name, a.url.c_str(), why.c_str());
        return 1;
    }
    if (!a.options.silent) {
        const double secs = std::max(SecondsBetween(transfer.m_Start, transfer.m_End), 1e-6);
        std::fprintf(stderr, "HTTP %ld, %s up, %s down, %s\n", facts.status,
                     FormatBytes(static_cast<double>(transfer.m_Up)).c_str(),
                     FormatBytes(static_cast<double>(handle.GetResponse().size())).c_str(),
                     FormatSeconds(secs).c_str());
    }
    return 0;
}

int RunBodyCommand(const char* name, int reqType, int argc, char** argv) {
    BodyArgs a;
    bool help = false;
    std::string error = ParseBodyArgs(reqType, argc, argv, a, help);
    if (help) return BodyUsage(reqType), 0;
    FILE* source = nullptr;
    curl_off_t size = -1;
    if (error.empty() && !a.file.empty()) source = OpenSource(a.file, size, error);
    if (!error.empty()) {
        std::fprintf(stderr, "netloop %s: %s (see netloop %s --help)\n", name, error.c_str(), name);
        return 2;
    }
    // A body from a file goes as an upload; `post` keeps its method and the
    // content type that --data TEXT gets.
    const bool postUpload = reqType == netloop::HTTP_REQ_POST && source != nullptr;
    if (postUpload && a.options.method.empty()) a.options.method = "POST";
    if (postUpload && !HasHeader(a.http.headers, "Content-Type"))
        a.http.headers.push_back("Content-Type: application/x-www-form-urlencoded");

    ToolLogger::Install(a.http.verbose);
    auto transfer = std::make_shared<BodyTransfer>(source, stderr);
    auto handle = IHttpHandleInterface::Create();
    bool ended = false, armed = false;
    {
        RunningFrame frame;
        armed = frame.Ok() && handle->InitHttpReq(a.url.c_str(), name, postUpload ? netloop::HTTP_REQ_UPLOAD : reqType,
                                                  transfer, static_cast<int>(a.http.connectTimeoutMs),
                                                  static_cast<int>(a.http.timeoutMs), nullptr) == 0;
        if (!armed) error = frame.Ok() ? "not a URL the library accepts" : "the frame did not start";
        if (armed && ArmBody(*handle, postUpload ? netloop::HTTP_REQ_UPLOAD : reqType, a, size, error)) {
            if (frame->AddHttpReq(handle, false, nullptr, nullptr) == 0) ended = transfer->Wait(a.http.timeoutMs,
                                                                                                 a.options.silent);
            else error = "the frame refused the transfer";
        }
        if (armed) frame->DelHttpReq(handle, false, nullptr, nullptr);
    }
    if (source != nullptr && source != stdin) std::fclose(source);
    if (!error.empty()) {
        std::fprintf(stderr, "netloop %s: %s: %s\n", name, a.url.c_str(), error.c_str());
        return 1;
    }
    return Finish(name, a, *transfer, *handle, ended);
}

}  // namespace

int RunPost(int argc, char** argv) { return RunBodyCommand("post", netloop::HTTP_REQ_POST, argc, argv); }
int RunPut(int argc, char** argv) { return RunBodyCommand("put", netloop::HTTP_REQ_UPLOAD, argc, argv); }

}  // namespace tool
