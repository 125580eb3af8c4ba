// The exported surface: the special members of the four interfaces and the
// frame's factory with libcurl's one-time global set-up.
#include <curl/curl.h>

#include <cstdlib>

#include "frame/HttpFrame.h"
#include "netloop/IHttpInterface.h"

namespace netloop {

IHttpInterface::IHttpInterface() = default;
IHttpInterface::IHttpInterface(const IHttpInterface&) = default;
IHttpInterface& IHttpInterface::operator=(const IHttpInterface&) = default;
IHttpInterface::~IHttpInterface() {}

IHttpHandleInterface::IHttpHandleInterface() = default;
IHttpHandleInterface::IHttpHandleInterface(const IHttpHandleInterface&) = default;
IHttpHandleInterface& IHttpHandleInterface::operator=(const IHttpHandleInterface&) = default;
IHttpHandleInterface::~IHttpHandleInterface() {}

ITimerHandleInterface::ITimerHandleInterface() = default;
ITimerHandleInterface::ITimerHandleInterface(const ITimerHandleInterface&) = default;
ITimerHandleInterface& ITimerHandleInterface::operator=(const ITimerHandleInterface&) = default;
ITimerHandleInterface::~ITimerHandleInterface() {}

IUdpHandleInterface::IUdpHandleInterface() = default;
IUdpHandleInterface::IUdpHandleInterface(const IUdpHandleInterface&) = default;
IUdpHandleInterface::IUdpHandleInterface(IUdpHandleInterface&&) = default;
IUdpHandleInterface& IUdpHandleInterface::operator=(const IUdpHandleInterface&) = default;
IUdpHandleInterface& IUdpHandleInterface::operator=(IUdpHandleInterface&&) = default;

namespace {

void CleanupCurlGlobal() { curl_global_cleanup(); }

// Nothing runs when the library is loaded: libcurl is set up by the first frame
// and cleaned up when the library is unloaded or the process exits (atexit in
// a shared object runs at either).
void EnsureCurlGlobal() {
    static const bool done = [] {
        curl_global_init(CURL_GLOBAL_ALL);
        std::atexit(CleanupCurlGlobal);
        return true;
    }();
    (void)done;
}

}  // namespace

std::shared_ptr<IHttpInterface> IHttpInterface::Create() {
    EnsureCurlGlobal();
    return std::make_shared<CHttpFrame>();
}

}  // namespace netloop
