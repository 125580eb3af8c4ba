// Bounds of a WebSocket connection: the largest message it accepts and the
// bytes it lets wait to be sent.
#include "http/HttpHandle.h"

namespace netloop {

int CHttpHandle::SetWsMaxMessageSize(size_t bytes) { return -1; }
int CHttpHandle::SetWsMaxSendBuffer(size_t bytes) { return -1; }
size_t CHttpHandle::GetWsBufferedAmount() { return 0; }

}  // namespace netloop
