#include "session.h"

#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <thread>

#include "dova/init.h"
#include "dova/trace.h"
#include "exit_status.h"
#include "terminal.h"
#include "trace_capture.h"

namespace korcommon::cli {
namespace {

// State shared by the signal watcher, the delivery threads and the main thread. Never
// freed: the detached watcher may still use it while the process exits.
struct Events {
  std::mutex mutex;
  std::condition_variable changed;
  bool interrupted = false;
};

Events& events() {
  static auto* shared = new Events;
  return *shared;
}

sigset_t interruptSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

// Blocks SIGINT and SIGTERM in this thread, and so in every thread started after it
// (Cyclone's and the worker pools), and lets one watcher thread take them with sigwait: a
// signal then becomes an ordinary event instead of running code in a handler.
void watchInterrupts() {
  static std::once_flag started;
  std::call_once(started, [] {
    const sigset_t signals = interruptSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::thread([signals] {
      for (;;) {
        int signal_number = 0;
        if (sigwait(&signals, &signal_number) != 0) continue;
        Events& state = events();
        std::lock_guard<std::mutex> lock(state.mutex);
        if (state.interrupted) std::_Exit(128 + signal_number);  // asked twice: stop now
        state.interrupted = true;
        state.changed.notify_all();
      }
    }).detach();
  });
}

}  // namespace

std::string cliTransport() {
  const char* transport = std::getenv("DOVA_TRANSPORT");
  return transport != nullptr && *transport != '\0' ? transport : "dds";
}

std::string cliWhere() {
  if (cliTransport() == "local") return "on the local transport (this process only)";
  const char* domain = std::getenv("DOVA_DOMAIN_ID");
  return std::string("on domain ") + (domain != nullptr && *domain != '\0' ? domain : "0");
}

void sayNothingHeard(const std::string& what, double seconds) {
  char waited[32];
  std::snprintf(waited, sizeof waited, "%g", seconds);
  std::cerr << "korcommon: no " << what << " in " << waited << " s " << oneLine(cliWhere())
            << "; try `korcommon doctor`\n";
}

std::string cliNodeName(const std::string& requested) {
  return requested.empty() ? "korcommon_cli_" + std::to_string(getpid()) : requested;
}

Session::Session(const std::string& node_name) {
  watchInterrupts();
  dova::Options options;
  options.transport = cliTransport();
  std::string first_error;
  {
    // The platform explains a failed start in a trace; catch it for a one-line error.
    const TraceCapture errors(dova::ERROR);
    joined_ = dova::init(node_name, options);
    first_error = errors.first();
  }
  if (!joined_) {
    error_ = first_error.empty() ? std::string("dova::init failed") : first_error;
  }
}

Session::~Session() {
  if (joined_) dova::shutdown();
}

void Session::requireJoined() const {
  if (!joined_) failWith(kTrouble, "cannot join the middleware: " + error_);
}

std::mutex& Session::mutex() { return events().mutex; }

void Session::notify() { events().changed.notify_all(); }

bool Session::interrupted() const { return events().interrupted; }

std::condition_variable& Session::changed() { return events().changed; }

}  // namespace korcommon::cli
