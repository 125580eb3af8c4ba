// One socket that libcurl asked the loop to watch.
#pragma once

#include <curl/curl.h>
#include <uv.h>

namespace netloop {

class CHttpFrame;

// A plain malloc'ed block, freed by the close callback of its poll handle and
// nowhere else. m_Poll comes first so that the record and its handle share an
// address. libcurl keeps the record as the socket's socketp; that is its only index.
struct CurlSocketRec {
    uv_poll_t m_Poll;       // data points back at the record
    curl_socket_t m_Socket;
    CHttpFrame* m_Frame;    // the frame outlives the loop, so no reference is counted
};

}  // namespace netloop
