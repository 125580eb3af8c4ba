// One socket that libcurl asked the loop to watch.
#pragma once

#include <curl/curl.h>
#include <uv.h>

namespace netloop {

class CHttpFrame;

// A plain malloc'ed block, freed by the close callback of its poll handle and
// nowhere else. m_Poll comes first so that the record and its handle share an
// address. libcurl keeps the record as the socket's socketp; that is its only index.
//
// A kept-alive connection's record may go on watching after libcurl removed the
// socket (m_Assigned false): libuv pays two epoll_ctl calls for every stop and
// restart, and libcurl asks for the same socket again as soon as the next
// transfer takes the connection. An event on such a record only stops it.
struct CurlSocketRec {
    uv_poll_t m_Poll;       // data points back at the record
    curl_socket_t m_Socket;
    CHttpFrame* m_Frame;    // the frame outlives the loop, so no reference is counted
    int m_Events;           // what m_Poll watches now, 0 when stopped
    bool m_Assigned;        // libcurl holds the record as the socket's socketp
};

}  // namespace netloop
