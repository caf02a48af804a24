// A process that traces, for the tests of "korcommon log echo": joins the middleware over
// DDS as NODE, logs MESSAGE at ERROR through korcommon::mtrace, prints
// "traced at line <n>" and stays alive, so that its record stays available to processes
// that join later, until SIGINT or SIGTERM (60 s at most, so it can never be left behind).
//
// usage: cli_trace_helper NODE MESSAGE
#include <dova/init.h>
#include <korcommon/log.h>
#include <pthread.h>

#include <csignal>
#include <cstdio>
#include <ctime>

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: cli_trace_helper NODE MESSAGE\n");
    return 2;
  }
  // Blocked before the middleware starts its threads, so they inherit the mask and the
  // signal waits for sigtimedwait below.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);

  dova::Options options;
  options.transport = "dds";
  if (!dova::init(argv[1], options)) return 1;
  const int line = __LINE__ + 1;
  korcommon::mtrace(8, __FILE__, line, "main", "%s", argv[2]);
  std::printf("traced at line %d\n", line);
  std::fflush(stdout);

  const timespec limit{60, 0};
  sigtimedwait(&stop, nullptr, &limit);
  dova::shutdown();
  return 0;
}
