// Placeholder until the asynchronous resolver lands: never has an answer at hand
// and reports every look-up as failed on a thread of its own.
#include <thread>

#include "hostseek/IHostseekInterface.h"

namespace hostseek_interface {
namespace {

class CNullResolver : public IHostseekInterface {
public:
    int ResolveHost(const char*, const struct addrinfo*, std::shared_ptr<IHostseekResultNotic> notic,
                    void* userData, struct addrinfo**) override {
        if (notic) std::thread([notic, userData] { notic->OnHostseekResult(EAI_FAIL, nullptr, userData); }).detach();
        return -1;
    }
};

}  // namespace

std::shared_ptr<IHostseekInterface> IHostseekInterface::GetHostseekInstance(
    int, std::shared_ptr<IHostseekInterface> replace) {
    static std::shared_ptr<IHostseekInterface> instance = std::make_shared<CNullResolver>();
    if (replace) instance = replace;
    return instance;
}

}  // namespace hostseek_interface
