#include "node_census.h"

#include <mutex>

#include "dova/msgs/topics.h"
#include "subscription.h"

namespace korcommon::cli {

NodeCensus::NodeCensus(Session& session, double wait_seconds)
    : session_(session), began_(dova::Time::now().toSec()) {
  diagnostics_ = subscribeLatched<Report>(dova::msgs::kDiagnosticsTopic,
                                          [this](const std::shared_ptr<const Report>& report) {
                                            heard(report->caller_id, dova::msgs::kDiagnosticsTopic,
                                                  report->header.stamp, &NodeActivity::reports);
                                          });
  records_ = subscribeLatched<Record>(dova::msgs::kLogTopic,
                                      [this](const std::shared_ptr<const Record>& record) {
                                        heard(record->caller_id, dova::msgs::kLogTopic,
                                              record->header.stamp, &NodeActivity::records);
                                      });
  std::unique_lock<std::mutex> lock(session_.mutex());
  session_.waitUntil(lock, Clock::now() + toDuration(wait_seconds), [] { return false; });
  closed_ = true;
}

std::map<std::string, NodeActivity> NodeCensus::nodes() const {
  std::lock_guard<std::mutex> lock(session_.mutex());
  return nodes_;
}

std::set<std::string> NodeCensus::names() const {
  std::set<std::string> names;
  for (const auto& node : nodes()) names.insert(node.first);
  return names;
}

void NodeCensus::heard(const std::string& node, const char* topic, const dova::Time& stamp,
                       int NodeActivity::*count) {
  std::lock_guard<std::mutex> lock(session_.mutex());
  if (closed_) return;
  NodeActivity& activity = nodes_[node];
  activity.topics.insert(topic);
  if (stamp.toSec() >= began_) ++(activity.*count);
}

}  // namespace korcommon::cli
