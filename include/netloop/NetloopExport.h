// Symbol export for the netloop shared library.
#pragma once

#if defined(_WIN32)
#  if defined(NETLOOP_BUILDING)
#    define NETLOOP_EXPORT __declspec(dllexport)
#  else
#    define NETLOOP_EXPORT __declspec(dllimport)
#  endif
#else
#  define NETLOOP_EXPORT __attribute__((visibility("default")))
#endif
