// A timer notice made of two functions, for applications that would rather not
// write a notice class.
#pragma once

#include <memory>

#include "netloop/ITimerHandleInterface.h"

namespace netloop {

class CFunctionTimerNotic : public ITimerHandleNotic {
public:
    CFunctionTimerNotic(TimerFunc onTimer, TimerFunc onClose);

    // Each forwards to its function; an empty function is simply skipped.
    void OnTimer(std::shared_ptr<ITimerHandleInterface> handle, void* userData) override;
    void OnClose(std::shared_ptr<ITimerHandleInterface> handle, void* userData) override;

    // Destroys both functions as the destructor would: m_OnClose, then m_OnTimer.
    void Release();

private:
    TimerFunc m_OnTimer;
    TimerFunc m_OnClose;
};

}  // namespace netloop
