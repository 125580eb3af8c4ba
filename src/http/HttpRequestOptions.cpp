// Request options beyond the request type: method, redirects, compression and
// the cap on a body kept in memory.
#include "http/HttpHandle.h"

namespace netloop {

int CHttpHandle::SetMaxResponseSize(curl_off_t bytes) { return -1; }
int CHttpHandle::SetMethod(const char* method) { return -1; }
int CHttpHandle::SetFollowRedirects(long maxRedirects) { return -1; }
int CHttpHandle::EnableCompression(bool enable) { return -1; }

}  // namespace netloop
