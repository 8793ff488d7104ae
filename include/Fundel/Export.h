// Symbol visibility of the library's public classes and functions.
#pragma once

#if defined(_WIN32)
#  if defined(CORVANE_BUILDING)
#    define FUNDEL_API __declspec(dllexport)
#  elif defined(CORVANE_STATIC)
#    define FUNDEL_API
#  else
#    define FUNDEL_API __declspec(dllimport)
#  endif
#else
#  define FUNDEL_API __attribute__((visibility("default")))
#endif
