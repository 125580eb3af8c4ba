#include "ResponseFacts.h"

#include <cstdio>
#include <functional>
#include <map>
#include <strings.h>

namespace tool {

void CaptureFacts(netloop::IHttpHandleInterface& handle, int result, ResponseFacts& facts) {
    facts.result = result;
    facts.status = handle.GetResponseCode();
    if (facts.status < 0) facts.status = 0;
    facts.errorText = handle.GetErrorText();
    facts.haveInfo = handle.GetTransferInfo(&facts.info) == 0;
    handle.GetResponseHeaderList(facts.headers, false);
    handle.GetResponseHeader("Location", facts.location);
}

std::string FailureReason(const ResponseFacts& facts) {
    if (facts.result != 0)
        return facts.errorText.empty() ? "transfer failed (the library gave no reason)" : facts.errorText;
    const long s = facts.status;
    if (s >= 200 && s < 300) return "";
    if (s >= 300 && s < 400)
        return "HTTP " + std::to_string(s) + " redirect" + (facts.location.empty() ? "" : " to " + facts.location) +
               " (-L follows it)";
    if (s == 0) return "no HTTP response";
    return "HTTP " + std::to_string(s);
}

std::string HttpVersionText(long version) {
    switch (version) {
        case 10: return "1.0";
        case 11: return "1.1";
        case 20: return "2";
        case 30: return "3";
        default: return "0";
    }
}

namespace {

// The reason phrases of RFC 9110 for the statuses a download meets; the
// library keeps no status line, so the reason is the standard one.
const char* ReasonPhrase(long status) {
    static const std::map<long, const char*> kReasons = {
        {100, "Continue"}, {200, "OK"}, {201, "Created"}, {202, "Accepted"}, {204, "No Content"},
        {206, "Partial Content"}, {301, "Moved Permanently"}, {302, "Found"}, {303, "See Other"},
        {304, "Not Modified"}, {307, "Temporary Redirect"}, {308, "Permanent Redirect"}, {400, "Bad Request"},
        {401, "Unauthorized"}, {403, "Forbidden"}, {404, "Not Found"}, {405, "Method Not Allowed"},
        {408, "Request Timeout"}, {409, "Conflict"}, {410, "Gone"}, {411, "Length Required"},
        {413, "Content Too Large"}, {416, "Range Not Satisfiable"}, {429, "Too Many Requests"},
        {500, "Internal Server Error"}, {501, "Not Implemented"}, {502, "Bad Gateway"},
        {503, "Service Unavailable"}, {504, "Gateway Timeout"},
    };
    auto it = kReasons.find(status);
    return it == kReasons.end() ? "" : it->second;
}

}  // namespace

std::string HeaderBlock(const ResponseFacts& facts) {
    if (facts.status == 0) return "";
    // HTTP/2 and 3 carry no reason phrase: the line ends after the code.
    const long version = facts.info.httpVersion;
    std::string out = "HTTP/" + (version == 0 ? std::string("1.1") : HttpVersionText(version)) + " " +
                      std::to_string(facts.status) + " " + (version >= 20 ? "" : ReasonPhrase(facts.status)) + "\r\n";
    for (const auto& h : facts.headers) out += h.first + ": " + h.second + "\r\n";
    return out + "\r\n";
}

namespace {

std::string Seconds(curl_off_t us) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.6f", static_cast<double>(us) / 1e6);
    return text;
}

using Variable = std::function<std::string(const ResponseFacts&, const std::string&)>;

const std::map<std::string, Variable>& Variables() {
    static const std::map<std::string, Variable> kVariables = {
        {"http_code", [](const ResponseFacts& f, const std::string&) {
             char text[16];
             std::snprintf(text, sizeof(text), "%03ld", f.status);
             return std::string(text);
         }},
        {"http_version", [](const ResponseFacts& f, const std::string&) { return HttpVersionText(f.info.httpVersion); }},
        {"url_effective", [](const ResponseFacts& f, const std::string&) { return f.info.effectiveUrl; }},
        {"remote_ip", [](const ResponseFacts& f, const std::string&) { return f.info.remoteIp; }},
        {"remote_port", [](const ResponseFacts& f, const std::string&) { return std::to_string(f.info.remotePort); }},
        {"time_namelookup", [](const ResponseFacts& f, const std::string&) { return Seconds(f.info.nameLookupUs); }},
        {"time_connect", [](const ResponseFacts& f, const std::string&) { return Seconds(f.info.connectUs); }},
        {"time_appconnect", [](const ResponseFacts& f, const std::string&) { return Seconds(f.info.tlsUs); }},
        {"time_starttransfer", [](const ResponseFacts& f, const std::string&) { return Seconds(f.info.firstByteUs); }},
        {"time_total", [](const ResponseFacts& f, const std::string&) { return Seconds(f.info.totalUs); }},
        {"size_download",
         [](const ResponseFacts& f, const std::string&) { return std::to_string(f.info.bytesReceived); }},
        {"size_upload", [](const ResponseFacts& f, const std::string&) { return std::to_string(f.info.bytesSent); }},
        {"redirect_url", [](const ResponseFacts& f, const std::string&) { return f.location; }},
        {"errormsg", [](const ResponseFacts& f, const std::string&) { return f.errorText; }},
        {"filename_effective", [](const ResponseFacts&, const std::string& name) { return name; }},
    };
    return kVariables;
}

// The last value of header `name` in the final response.
std::string FinalHeader(const ResponseFacts& facts, const std::string& name) {
    std::string value;
    for (const auto& h : facts.headers)
        if (strcasecmp(h.first.c_str(), name.c_str()) == 0) value = h.second;
    return value;
}

}  // namespace

std::string ExpandWriteOut(const std::string& format, const ResponseFacts& facts, const std::string& outputName,
                           std::string& warnings) {
    static const std::map<char, char> kEscapes = {{'n', '\n'}, {'r', '\r'}, {'t', '\t'}, {'\\', '\\'}};
    std::string out;
    for (size_t i = 0; i < format.size(); ++i) {
        const char c = format[i];
        if (c == '\\' && i + 1 < format.size() && kEscapes.count(format[i + 1])) {
            out += kEscapes.at(format[++i]);
        } else if (c == '%' && format.compare(i, 2, "%%") == 0) {
            out += '%';
            ++i;
        } else if (c == '%' && (format.compare(i, 2, "%{") == 0 || format.compare(i, 8, "%header{") == 0)) {
            const bool header = format[i + 1] == 'h';
            const size_t open = i + (header ? 8 : 2), close = format.find('}', open);
            if (close == std::string::npos) {
                out += format.substr(i);
                break;
            }
            const std::string name = format.substr(open, close - open);
            auto it = Variables().find(name);
            if (header) out += FinalHeader(facts, name);
            else if (it != Variables().end()) out += it->second(facts, outputName);
            else warnings += "unknown -w variable '" + name + "'\n";
            i = close;
        } else {
            out += c;
        }
    }
    return out;
}

}  // namespace tool
