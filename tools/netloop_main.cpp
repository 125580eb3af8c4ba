// netloop: the command-line face of the library.
#include <netloop/IHttpInterface.h>
#include <sysutil/sysutil.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

class StopReport : public netloop::IHttpFrameNotic {
public:
    std::atomic<bool> told{false};
    int OnFrameStop(std::shared_ptr<netloop::IHttpInterface>, void*) override {
        told = true;
        return 0;
    }
};

int RunDemo() {
    auto frame = netloop::IHttpInterface::Create();
    auto report = std::make_shared<StopReport>();
    bool ok = frame->Init(report, false, true, nullptr) == 0;
    std::printf("%-40s %s\n", "frame set up (loop, multi handle, share)", ok ? "ok" : "FAILED");
    ok = ok && frame->Start(true) == 0 && frame->WaitRunning(1000);
    std::printf("%-40s %s\n", "loop thread running", ok ? "ok" : "FAILED");
    ok = ok && frame->Stop(false) == 0 && report->told;
    std::printf("%-40s %s\n", "clean stop", ok ? "ok" : "FAILED");
    return ok ? 0 : 1;
}

void Usage() { std::fprintf(stderr, "usage: netloop demo\n"); }

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && std::strcmp(argv[1], "demo") == 0) return RunDemo();
    Usage();
    return 2;
}
