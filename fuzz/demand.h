#pragma once
// What a fuzz target insists on, in builds without assertions too.

#include <cstdio>
#include <cstdlib>

#define KAB_DEMAND(condition)                                                      \
  do {                                                                             \
    if (!(condition)) {                                                            \
      std::fprintf(stderr, "%s:%d: broken: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                \
    }                                                                              \
  } while (false)
