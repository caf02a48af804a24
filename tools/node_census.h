#ifndef KORCOMMON_TOOLS_NODE_CENSUS_H_
#define KORCOMMON_TOOLS_NODE_CENSUS_H_

#include <map>
#include <memory>
#include <set>
#include <string>

#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/os/node_handle_base.h"
#include "dova/time.h"
#include "session.h"

namespace korcommon::cli {

// What one node was heard saying.
struct NodeActivity {
  std::set<std::string> topics;  // the topics it spoke on
  int reports = 0;               // diagnostic reports stamped while the census listened
  int records = 0;               // trace records stamped while the census listened
};

// The nodes that speak on the topics every korcommon process uses, diagnostics and trace
// records. Both are latched, so every live node's latest report and record arrive on joining;
// what a node publishes while the census listens gives its rates. Messages stamped before
// the census began are such replays and count for the topics only.
//
// The constructor listens for the given time, or until SIGINT or SIGTERM; the other members
// may then be called from the command's thread.
class NodeCensus {
 public:
  // REQUIRES: `session` has joined the middleware. The census is kept until the session has
  // shut down, since the middleware delivers to it until then.
  NodeCensus(Session& session, double wait_seconds);
  NodeCensus(const NodeCensus&) = delete;
  NodeCensus& operator=(const NodeCensus&) = delete;

  // Whether both subscriptions were made.
  bool subscribed() const { return diagnostics_ != nullptr && records_ != nullptr; }

  // Every node heard, by name, in name order.
  std::map<std::string, NodeActivity> nodes() const;
  std::set<std::string> names() const;

 private:
  using Report = dova::diagnostic_msgs::DiagnosticValue;
  using Record = dova::dova_msgs::Log;

  // On a delivery thread of the middleware.
  void heard(const std::string& node, const char* topic, const dova::Time& stamp,
             int NodeActivity::*count);

  Session& session_;
  const double began_;  // seconds of the middleware clock, which stamps the messages
  std::unique_ptr<dova::Subscriber<Report>> diagnostics_;
  std::unique_ptr<dova::Subscriber<Record>> records_;
  bool closed_ = false;  // guarded by the session's mutex, as nodes_
  std::map<std::string, NodeActivity> nodes_;
};

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_NODE_CENSUS_H_
