#ifndef KORCOMMON_TOOLS_WEB_SERVER_H_
#define KORCOMMON_TOOLS_WEB_SERVER_H_

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>

#include "web_state.h"

namespace httplib {
class Server;
}

namespace korcommon::cli {

// Whether `host` (an address or a name, as given to --bind or in a Host header, without the
// port) names this machine's loopback: 127.0.0.0/8, ::1 or localhost.
bool isLoopbackHost(const std::string& host);

struct ServerOptions {
  std::string bind = "127.0.0.1";
  int port = 8080;                      // 0: any free port
  std::string token;                    // when set, every request must present it
  size_t max_streams = 16;              // event streams open at once
  size_t max_body = size_t{64} * 1024;  // larger request bodies are refused
};

// The dashboard's HTTP server: the page's files and the read-only API over a DashboardState.
//
//   GET  /, /app.js, ...        the page (tools/web)
//   GET  /api/diagnostics       ?name=REGEX&level=ok|warn|error  the latest reports
//   GET  /api/logs              ?level=debug..fatal&limit=N      the latest trace records
//   POST /api/envelope/inspect  a signal envelope's text: its members and validity
//   GET  /api/events            Server-Sent Events: the state, then its changes
//
// Errors are a 4xx or 5xx status with {"error":"..."}. With a token, a request presents it as
// "Authorization: Bearer T", as ?token=T (which also sets a cookie, so that the page's own
// requests carry it) or as that cookie; without one, only requests addressed to a loopback
// host name are served, so that no other web site can reach the API through a name that
// resolves to this machine.
//
// start() and stop() from one thread; the handlers run on the server's own pool.
class DashboardServer {
 public:
  DashboardServer(DashboardState& state, ServerOptions options);
  ~DashboardServer();
  DashboardServer(const DashboardServer&) = delete;
  DashboardServer& operator=(const DashboardServer&) = delete;

  // Binds the address; false with a one-line reason in `error`.
  bool bind(std::string& error);

  // The port bound. REQUIRES: bind() succeeded.
  int port() const { return port_; }

  // Serves on a thread of its own. REQUIRES: bind() succeeded.
  void start();

  // Ends every event stream (the state is closed for good) and stops serving.
  void stop();

 private:
  void addRoutes();
  // Who may ask: a loopback Host header without a token, the token otherwise.
  void addAccessCheck();
  // The body of a status the server library sets by itself, and of an escaped exception.
  void addErrorAnswers();
  // The page's files.
  void addPageRoutes();
  // GET /api/diagnostics and /api/logs.
  void addReadRoutes();
  // POST /api/envelope/inspect.
  void addInspectRoute();
  // GET /api/events, at most options_.max_streams at once.
  void addEventStream();

  DashboardState& state_;
  const ServerOptions options_;
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  std::atomic<size_t> open_streams_{0};
  int port_ = 0;
};

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_WEB_SERVER_H_
