#include "TransferOptions.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace tool {

const char kTransferOptionsHelp[] =
    "  -X, --request METHOD      use METHOD instead of the command's own\n"
    "  -I, --head                send HEAD and print the response headers\n"
    "  -i, --include             print the response headers before the body\n"
    "  -D, --dump-header FILE    write the response headers to FILE (- for stdout)\n"
    "  -L, --location            follow redirects (at most --max-redirs N, default 50)\n"
    "  --compressed              ask for a compressed response and decode it\n"
    "  -w, --write-out FORMAT    print FORMAT after the transfer: %{http_code}, %{http_version},\n"
    "                            %{url_effective}, %{remote_ip}, %{remote_port}, %{time_namelookup},\n"
    "                            %{time_connect}, %{time_appconnect}, %{time_starttransfer},\n"
    "                            %{time_total}, %{size_download}, %{size_upload}, %{redirect_url},\n"
    "                            %{errormsg}, %{filename_effective}, %header{NAME}; \\n \\t \\r\n"
    "  --max-size SIZE           fail a response body larger than SIZE (e.g. 512K, 16M, 1G)\n"
    "  --fail-with-body          keep the body of an HTTP error (default: no file is left)\n"
    "  -s, --silent              no progress display and no summary\n";

bool ParseSize(const std::string& text, curl_off_t& out) {
    if (text.empty() || text[0] < '0' || text[0] > '9') return false;
    char* end = nullptr;
    errno = 0;
    unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (errno != 0) return false;
    static const char kUnits[] = "KMGT";
    int shift = 0;
    if (*end != '\0') {
        const char* unit = std::strchr(kUnits, *end & ~0x20);
        if (unit == nullptr || *unit == '\0' || end[1] != '\0') return false;
        shift = 10 * static_cast<int>(unit - kUnits + 1);
    }
    if (shift > 0 && value > (0x7fffffffffffffffULL >> shift)) return false;
    if (value > 0x7fffffffffffffffULL) return false;
    out = static_cast<curl_off_t>(value << shift);
    return true;
}

bool ReadTransferOption(ArgReader& args, TransferOptions& options, std::string& error) {
    std::string value;
    long number = 0;
    if (args.Value("--request", "-X", options.method, error)) return true;
    if (args.Value("--dump-header", "-D", options.headerFile, error)) return true;
    if (args.Value("--write-out", "-w", options.writeOut, error)) return true;
    if (args.Value("--max-redirs", nullptr, value, error)) {
        if (error.empty() && !ParseInt(value, 0, 1000, number)) error = "--max-redirs wants a number from 0 to 1000";
        options.maxRedirects = number;
        return true;
    }
    if (args.Value("--max-size", nullptr, value, error)) {
        if (error.empty() && (!ParseSize(value, options.maxSize) || options.maxSize == 0))
            error = "--max-size wants a size such as 1048576, 512K, 16M or 1G, got '" + value + "'";
        return true;
    }
    struct FlagOption {
        const char* name;
        const char* alias;
        bool TransferOptions::*field;
    };
    static const FlagOption kFlags[] = {
        {"--head", "-I", &TransferOptions::head},          {"--include", "-i", &TransferOptions::includeHeaders},
        {"--location", "-L", &TransferOptions::follow},    {"--compressed", nullptr, &TransferOptions::compressed},
        {"--fail-with-body", nullptr, &TransferOptions::failWithBody},
        {"--silent", "-s", &TransferOptions::silent},
    };
    for (const FlagOption& flag : kFlags) {
        if (!args.Flag(flag.name, flag.alias)) continue;
        options.*flag.field = true;
        return true;
    }
    return false;
}

bool ApplyTransferOptions(netloop::IHttpHandleInterface& handle, const TransferOptions& options, std::string& error) {
    const std::string method = options.method.empty() && options.head ? "HEAD" : options.method;
    if (!method.empty() && handle.SetMethod(method.c_str()) != 0) error = "the method " + method + " was refused";
    if (options.follow && handle.SetFollowRedirects(options.maxRedirects) != 0) error = "-L was refused";
    if (options.compressed && handle.EnableCompression(true) != 0) error = "--compressed was refused";
    if (options.maxSize > 0 && handle.SetMaxResponseSize(options.maxSize) != 0) error = "--max-size was refused";
    return error.empty();
}

}  // namespace tool
