// The fuzzers' property check: a failed check prints what broke and aborts, which libFuzzer
// reports as a crash (saving the input) and which fails the corpus replay test.
#ifndef KORCOMMON_FUZZ_FUZZ_CHECK_H_
#define KORCOMMON_FUZZ_FUZZ_CHECK_H_

#include <cstdio>
#include <cstdlib>
#include <string>

namespace korcommon::fuzz {

[[noreturn]] inline void failCheck(const char* file, int line, const char* condition,
                                   const std::string& message) {
  std::fprintf(stderr, "%s:%d: check failed: %s\n  %s\n", file, line, condition, message.c_str());
  std::fflush(stderr);
  std::abort();
}

}  // namespace korcommon::fuzz

#define FUZZ_CHECK(condition, message)                                                       \
  do {                                                                                       \
    if (!(condition)) ::korcommon::fuzz::failCheck(__FILE__, __LINE__, #condition, message); \
  } while (false)

#endif  // KORCOMMON_FUZZ_FUZZ_CHECK_H_
