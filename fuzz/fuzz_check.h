// A check for fuzz targets that stops the run (a crash libFuzzer reports, an abort in a replay)
// whenever a parser's promise is broken, in every build type.
#ifndef PELMORA_FUZZ_FUZZ_CHECK_H_
#define PELMORA_FUZZ_FUZZ_CHECK_H_

#include <cstdio>
#include <cstdlib>

#define PELMORA_FUZZ_CHECK(condition)                                                    \
  do {                                                                                   \
    if (!(condition)) {                                                                  \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                      \
    }                                                                                    \
  } while (false)

#endif  // PELMORA_FUZZ_FUZZ_CHECK_H_
