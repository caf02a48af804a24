#include "web_command.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <string>

#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/msgs/topics.h"
#include "exit_status.h"
#include "option_checks.h"
#include "session.h"
#include "subscription.h"
#include "terminal.h"
#include "web_server.h"
#include "web_state.h"

namespace korcommon::cli {
namespace {

struct WebArguments {
  ServerOptions server;
  DashboardLimits limits;
  double duration = 0.0;
  std::string node;
  CLI::Option* duration_option = nullptr;
};

// 128 random bits as hexadecimal.
std::string generateToken() {
  std::random_device random;
  std::string token;
  for (int word = 0; word < 4; ++word) {
    char digits[9];
    std::snprintf(digits, sizeof digits, "%08x", static_cast<uint32_t>(random()));
    token += digits;
  }
  return token;
}

void runWeb(WebArguments arguments) {
  ServerOptions& options = arguments.server;
  if (options.token.empty() && !isLoopbackHost(options.bind)) options.token = generateToken();
  DashboardState state(arguments.limits);
  DashboardServer server(state, options);
  std::string error;
  if (!server.bind(error)) failWith(kTrouble, error);

  // Declared before the session, so they outlive its shutdown and no delivery reaches them
  // freed.
  std::unique_ptr<dova::Subscriber<dova::diagnostic_msgs::DiagnosticValue>> reports;
  std::unique_ptr<dova::Subscriber<dova::dova_msgs::Log>> records;
  Session session(cliNodeName(arguments.node));
  session.requireJoined();
  reports = requireSubscription<dova::diagnostic_msgs::DiagnosticValue>(
      dova::msgs::kDiagnosticsTopic, [&state](const auto& report) { state.addReport(report); });
  records = requireSubscription<dova::dova_msgs::Log>(
      dova::msgs::kLogTopic, [&state](const auto& record) { state.addRecord(record); });

  server.start();
  std::string url = "http://" + options.bind + ":" + std::to_string(server.port()) + "/";
  if (options.bind.find(':') != std::string::npos) {
    url = "http://[" + options.bind + "]:" + std::to_string(server.port()) + "/";
  }
  if (!options.token.empty()) url += "?token=" + options.token;
  writeLine("korcommon web: serving " + url + " (Ctrl-C stops)");

  std::unique_lock<std::mutex> lock(session.mutex());
  const Clock::time_point end = arguments.duration_option->count() > 0
                                    ? Clock::now() + toDuration(arguments.duration)
                                    : Clock::time_point::max();
  session.waitUntil(lock, end, [] { return false; });
  lock.unlock();
  server.stop();
}

}  // namespace

void addWebCommand(CLI::App& app) {
  auto arguments = std::make_shared<WebArguments>();
  CLI::App* web =
      app.add_subcommand("web", "Serve a live page of the robot's health and traces to a browser");
  web->add_option("--bind", arguments->server.bind, "Listen on this address")
      ->capture_default_str()
      ->type_name("ADDRESS");
  web->add_option("--port", arguments->server.port, "Listen on this port; 0 picks a free one")
      ->capture_default_str()
      ->type_name("PORT")
      ->check(CLI::Range(0, 65535));
  web->add_option("--token", arguments->server.token,
                  "Require this access token (generated when bound beyond the loopback)")
      ->type_name("TOKEN");
  web->add_option("--stale", arguments->limits.stale_seconds,
                  "Mark reporters silent for S seconds or more as stale")
      ->capture_default_str()
      ->type_name("S")
      ->check(greaterThanZero());
  arguments->duration_option =
      web->add_option("--duration", arguments->duration, "Exit after S seconds")
          ->type_name("S")
          ->check(greaterThanZero());
  web->add_option("--node", arguments->node, "Node name (default korcommon_cli_<pid>)")
      ->type_name("NAME");
  web->footer(
      "Prints \"korcommon web: serving <URL> (Ctrl-C stops)\" and serves, until Ctrl-C or\n"
      "--duration, a page with every reporter's latest report and its last ten minutes, the\n"
      "latest trace records of every process, and a signal envelope inspector. The page\n"
      "needs nothing from the internet and reconnects by itself.\n"
      "\n"
      "Read-only: nothing served publishes or changes anything on the robot. By default only\n"
      "this machine can connect (127.0.0.1). Bound to another address, every request must\n"
      "carry an access token, --token or one generated and printed in the URL.\n"
      "\n"
      "API (JSON; errors are 4xx with {\"error\":...}):\n"
      "  GET  /api/diagnostics?name=REGEX&level=ok|warn|error   latest reports, worst first,\n"
      "                                     as \"diag echo --json\" prints them\n"
      "  GET  /api/logs?level=debug..fatal&limit=N      latest trace records (N <= 10000)\n"
      "  POST /api/envelope/inspect         body: an envelope's text (64 KiB at most)\n"
      "  GET  /api/events                   Server-Sent Events, at most 10 a second\n"
      "\n"
      "Uses the dds transport unless DOVA_TRANSPORT says otherwise; DOVA_DOMAIN_ID selects\n"
      "the domain.\n"
      "\n"
      "Exit status: 0 done; 2 bad usage, the address cannot be bound, or the middleware\n"
      "cannot start.");
  web->callback([arguments] { runWeb(*arguments); });
}

}  // namespace korcommon::cli
