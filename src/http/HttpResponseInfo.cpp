// What a finished transfer tells beyond its body: response headers, libcurl's
// error text and the figures of the transfer.
#include "http/HttpHandle.h"

namespace netloop {

const std::string& CHttpHandle::GetErrorText() { return m_ErrorText; }
bool CHttpHandle::GetResponseHeader(const char* name, std::string& value) { return false; }
size_t CHttpHandle::GetResponseHeaderValues(const char* name, std::vector<std::string>& values) { return 0; }
void CHttpHandle::GetResponseHeaderList(std::vector<std::pair<std::string, std::string>>& out, bool allResponses) {
    out.clear();
}
int CHttpHandle::GetTransferInfo(HttpTransferInfo* info) { return -1; }

}  // namespace netloop
