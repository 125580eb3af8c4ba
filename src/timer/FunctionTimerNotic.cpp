#include "timer/FunctionTimerNotic.h"

#include <utility>

namespace netloop {

CFunctionTimerNotic::CFunctionTimerNotic(TimerFunc onTimer, TimerFunc onClose)
    : m_OnTimer(std::move(onTimer)), m_OnClose(std::move(onClose)) {}

void CFunctionTimerNotic::OnTimer(std::shared_ptr<ITimerHandleInterface> handle, void* userData) {
    if (m_OnTimer) m_OnTimer(std::move(handle), userData);
}

void CFunctionTimerNotic::OnClose(std::shared_ptr<ITimerHandleInterface> handle, void* userData) {
    if (m_OnClose) m_OnClose(std::move(handle), userData);
}

void CFunctionTimerNotic::Release() {
    m_OnClose = nullptr;
    m_OnTimer = nullptr;
}

}  // namespace netloop
