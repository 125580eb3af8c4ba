// Options of the commands that make one HTTP request per URL (get, post, put),
// spelled as curl spells them.
#pragma once

#include <netloop/IHttpHandleInterface.h>

#include <string>

#include "ToolCommon.h"

namespace tool {

struct TransferOptions {
    std::string method;         // -X: replaces the command's method
    bool head = false;          // -I: HEAD, and the headers are the output
    bool includeHeaders = false;  // -i: the headers before the body
    std::string headerFile;     // -D: the headers to this file ("-": stdout)
    bool follow = false;        // -L
    long maxRedirects = 50;     // --max-redirs
    bool compressed = false;    // --compressed
    std::string writeOut;       // -w
    curl_off_t maxSize = 0;     // --max-size; 0: no limit
    bool failWithBody = false;  // --fail-with-body: keep an HTTP error's body
    bool silent = false;        // -s: no progress display and no summary
};

// Reads one of the options above at the reader's position; false when the
// argument is none of them. `error` is set for a malformed value.
bool ReadTransferOption(ArgReader& args, TransferOptions& options, std::string& error);

// Applies the method, redirects, compression and body cap to an armed
// handle; false when the library refused one (`error` names it).
bool ApplyTransferOptions(netloop::IHttpHandleInterface& handle, const TransferOptions& options, std::string& error);

// A byte count with an optional K, M, G or T suffix (powers of 1024).
bool ParseSize(const std::string& text, curl_off_t& out);

extern const char kTransferOptionsHelp[];

}  // namespace tool
