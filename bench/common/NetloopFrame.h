// A started netloop frame for the duration of a scope.
#pragma once

#include <memory>

#include "netloop/IHttpInterface.h"

namespace bench {

class FrameScope {
public:
    // Init + Start(wait). `ok()` tells whether the frame runs.
    explicit FrameScope(bool enableShare = false, bool enablePipelining = false)
        : m_Frame(netloop::IHttpInterface::Create()) {
        m_Ok = m_Frame->Init(nullptr, enablePipelining, enableShare, nullptr) == 0 && m_Frame->Start(true) == 0;
    }
    ~FrameScope() { Stop(); }
    FrameScope(const FrameScope&) = delete;
    FrameScope& operator=(const FrameScope&) = delete;

    bool ok() const { return m_Ok; }
    const std::shared_ptr<netloop::IHttpInterface>& operator->() const { return m_Frame; }
    const std::shared_ptr<netloop::IHttpInterface>& get() const { return m_Frame; }
    void Stop() {
        if (m_Ok) m_Frame->Stop(false);
        m_Ok = false;
    }

private:
    std::shared_ptr<netloop::IHttpInterface> m_Frame;
    bool m_Ok = false;
};

}  // namespace bench
