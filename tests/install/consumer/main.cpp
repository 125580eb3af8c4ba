// Built against an installed netloop only: proves the package is usable.
#include <netloop/IHttpInterface.h>
#include <sysutil/sysutil.h>

#include <cstdio>

int main() {
    auto frame = netloop::IHttpInterface::Create();
    if (frame->Init(nullptr, false, true, nullptr) != 0) return 1;
    if (frame->Start(true) != 0) return 2;
    if (!frame->WaitRunning(1000)) return 3;
    if (frame->Stop(false) != 0) return 4;
    std::printf("consumer ok (tid %d)\n", static_cast<int>(sysutil::GetTid()));
    return 0;
}
