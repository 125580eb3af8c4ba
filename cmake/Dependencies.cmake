find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(CURL 8.0 REQUIRED)
pkg_check_modules(LIBUV REQUIRED IMPORTED_TARGET libuv>=1.44)

# netloop's WebSocket handles are ordinary libcurl transfers, so a libcurl
# built without WebSocket support cannot serve them. Ask the library itself.
if(NOT DEFINED NETLOOP_CURL_HAS_WS)
  set(_probe_dir ${CMAKE_BINARY_DIR}/curl_ws_probe)
  file(WRITE ${_probe_dir}/probe.c [=[
#include <curl/curl.h>
#include <stdio.h>
#include <string.h>
int main(void) {
  const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
  for (const char* const* p = info->protocols; p && *p; ++p)
    if (strcmp(*p, "ws") == 0) { printf("ws"); return 0; }
  printf("none");
  return 1;
}
]=])
  try_run(_ws_run _ws_compile ${_probe_dir} ${_probe_dir}/probe.c
          LINK_LIBRARIES CURL::libcurl
          COMPILE_OUTPUT_VARIABLE _ws_compile_out
          RUN_OUTPUT_VARIABLE _ws_out)
  if(_ws_compile AND _ws_run EQUAL 0)
    set(NETLOOP_CURL_HAS_WS TRUE CACHE INTERNAL "libcurl supports WebSocket")
  else()
    set(NETLOOP_CURL_HAS_WS FALSE)
  endif()
endif()
if(NOT NETLOOP_CURL_HAS_WS)
  message(FATAL_ERROR
    "libcurl ${CURL_VERSION_STRING} at ${CURL_LIBRARIES} has no WebSocket support (no 'ws' in its "
    "protocol list). netloop needs libcurl >= 7.86 built with WebSockets; on Debian 12 install "
    "libcurl4-openssl-dev from bookworm-backports (run scripts/setup.sh).")
endif()
