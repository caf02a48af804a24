#include "nodes_command.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "exit_status.h"
#include "node_census.h"
#include "option_checks.h"
#include "session.h"
#include "table.h"
#include "terminal.h"

namespace korcommon::cli {
namespace {

std::string perSecond(int count, double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", count / seconds);
  return text;
}

void runNodes(double wait_seconds) {
  std::unique_ptr<NodeCensus> census;  // declared first: freed after the session ends
  Session session(cliNodeName(""));
  session.requireJoined();
  census = std::make_unique<NodeCensus>(session, wait_seconds);
  if (!census->subscribed()) failWith(kTrouble, "cannot subscribe to the nodes' topics");
  const std::map<std::string, NodeActivity> nodes = census->nodes();
  if (nodes.empty()) {
    sayNothingHeard("nodes", wait_seconds);
    exitWith(kNo);
  }
  std::vector<std::vector<std::string>> cells = {{"NODE", "REPORTS/S", "RECORDS/S", "TOPICS"}};
  for (const auto& [name, activity] : nodes) {
    std::string topics;
    for (const std::string& topic : activity.topics) topics += (topics.empty() ? "" : " ") + topic;
    cells.push_back({oneLine(name), perSecond(activity.reports, wait_seconds),
                     perSecond(activity.records, wait_seconds), topics});
  }
  for (const std::string& line : layOutTable(cells, 0, {})) writeLine(line);
}

}  // namespace

void addNodesCommand(CLI::App& app) {
  auto wait_seconds = std::make_shared<double>(3.0);
  CLI::App* nodes = app.add_subcommand(
      "nodes", "List the live nodes, the topics they speak on and how often they speak");
  nodes->add_option("--wait", *wait_seconds, "Listen S seconds")
      ->capture_default_str()
      ->type_name("S")
      ->check(greaterThanZero());
  nodes->footer(
      "Listens on /diagnostics_value and /dova_log, the topics every korcommon process speaks\n"
      "on; the middleware replays the latest report and record of every live node on\n"
      "joining, so a node that is up but quiet is listed too. One row per node, by name:\n"
      "  NODE  REPORTS/S  RECORDS/S  TOPICS\n"
      "with the diagnostic reports and trace records a second that the node published while\n"
      "the command listened (replayed ones not counted).\n"
      "\n"
      "Uses the dds transport unless DOVA_TRANSPORT says otherwise; DOVA_DOMAIN_ID selects\n"
      "the domain. When no node is heard, one line on standard error says so.\n"
      "\n"
      "Exit status: 0 a node was heard; 1 none was; 2 bad usage or the middleware cannot\n"
      "start.\n"
      "\n"
      "Examples:\n"
      "  korcommon nodes\n"
      "  DOVA_DOMAIN_ID=7 korcommon nodes --wait 10");
  nodes->callback([wait_seconds] { runNodes(*wait_seconds); });
}

}  // namespace korcommon::cli
