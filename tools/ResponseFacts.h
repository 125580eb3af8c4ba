// What the tool keeps of a finished transfer, and the ways it shows it: the
// reason of a failure, the response headers as received (-i, -I, -D) and the
// -w format.
#pragma once

#include <netloop/IHttpHandleInterface.h>

#include <string>
#include <utility>
#include <vector>

namespace tool {

struct ResponseFacts {
    int result = -1;  // OnFinish's result: 0 completed, -2 failed; -1 never finished
    long status = 0;  // the final HTTP status, 0 without a response
    std::string errorText;
    netloop::HttpTransferInfo info;
    bool haveInfo = false;
    std::vector<std::pair<std::string, std::string>> headers;  // of the final response, in order
    std::string location;                                      // the final response's Location
};

// Reads everything above off a handle whose transfer has ended, before its
// teardown.
void CaptureFacts(netloop::IHttpHandleInterface& handle, int result, ResponseFacts& facts);

// Why the transfer does not count as a success; empty when it does (a
// completed transfer with a 2xx status).
std::string FailureReason(const ResponseFacts& facts);

// "1.0", "1.1", "2", "3"; "0" when unknown (curl's spelling).
std::string HttpVersionText(long version);

// The final response's header block as curl prints it: status line, headers,
// an empty line, CRLF line ends; empty without a response.
std::string HeaderBlock(const ResponseFacts& facts);

// Expands a -w format: %{name} variables, %header{name}, %% and the escapes
// \n, \r, \t, \\. `outputName` is %{filename_effective}. An unknown variable
// expands to nothing and is named in `warnings`.
std::string ExpandWriteOut(const std::string& format, const ResponseFacts& facts, const std::string& outputName,
                           std::string& warnings);

}  // namespace tool
