// Send one datagram to a UDP echo peer and print the reply.
//   udp_echo_client HOST PORT
#include <netloop/IHttpInterface.h>

#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>

using namespace netloop;

class Reply : public IUdpHandleNotic {
public:
    std::promise<std::string> reply;
    void OnUdpState(std::shared_ptr<IUdpHandleInterface>, int status, void*) override {
        std::printf("state %d\n", status);  // 0 connected, -1 failed, -2 closed
    }
    void OnUdpData(const char* data, int64_t size, const char* peerIp, void*) override {
        reply.set_value(std::string(peerIp) + ": " + std::string(data, static_cast<size_t>(size)));
    }
};

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s HOST PORT\n", argv[0]);
        return 2;
    }
    auto frame = IHttpInterface::Create();
    if (frame->Init(nullptr, false, false, nullptr) != 0 || frame->Start(true) != 0) return 1;

    auto notice = std::make_shared<Reply>();
    // HOST may be a name: the add resolves it first.
    auto udp = IUdpHandleInterface::Create(notice, argv[1], std::atoi(argv[2]), nullptr);
    std::promise<int> connected;
    frame->AddUdpReq(udp, false, [&](std::shared_ptr<IUdpHandleInterface>, void*, int rc) { connected.set_value(rc); },
                     nullptr);
    bool ok = connected.get_future().get() == 0;
    if (ok) {
        std::string text = "ping";
        udp->SendUdpData(std::make_shared<std::vector<uint8_t>>(text.begin(), text.end()));
        auto reply = notice->reply.get_future();
        ok = reply.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
        std::printf("%s\n", ok ? reply.get().c_str() : "no reply");
    }
    std::promise<void> deleted;
    frame->DelUdpReq(udp, false, [&](std::shared_ptr<IUdpHandleInterface>, void*, int) { deleted.set_value(); },
                     nullptr);
    deleted.get_future().wait();
    frame->Stop(false);
    return ok ? 0 : 1;
}
