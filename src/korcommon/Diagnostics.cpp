#include "korcommon/Diagnostics.h"

#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "dova/msgs/dova_msgs/Log.h"
#include "dova/msgs/topics.h"
#include "dova/os/node_handle_base.h"
#include "dova/time.h"
#include "korcommon/log.h"
#include "korcommon/startup_batch.h"

namespace korcommon {
namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using dova::dova_msgs::Log;
using DiagnosticValuePtr = std::shared_ptr<const DiagnosticValue>;

// The state one subscription shares between its delivery function and its
// hand-over thread.
struct MsgMapInfo {
  explicit MsgMapInfo(double start) : msgs(start) {}
  std::mutex mutex;             // guards the fields below and serialises the user's function
  detail::StartupBatch msgs;    // the start-up batch: collected reports, latest per name
  bool thread_started = false;  // never reset
};

void handOver(const Diagnostics::Callback& callback, const std::shared_ptr<MsgMapInfo>& info) {
  // The hand-over comes once the collection window has closed.
  dova::Duration(detail::kCollectionSeconds).wallSleep();
  std::lock_guard<std::mutex> lock(info->mutex);
  info->msgs.handOver(callback);
}

// Keeps every subscriber reachable for the rest of the process. They are never
// freed, on purpose; held here, a leak checker in the user's process does not
// report them.
void keepForever(dova::Subscriber<DiagnosticValue>* subscriber) {
  static auto* mutex = new std::mutex;
  static auto* subscribers = new std::vector<dova::Subscriber<DiagnosticValue>*>;
  std::lock_guard<std::mutex> lock(*mutex);
  subscribers->push_back(subscriber);
}

}  // namespace

void Diagnostics::publish(const std::string& name, int code, int level,
                          const std::string& message) {
  publish(name, std::string(), code, level, message);
}

void Diagnostics::publish(const std::string& name, const std::string& frame_id, int code, int level,
                          const std::string& message) {
  if (!dova::nh()->ok()) {
    mtrace(Log::ERROR, __FILE__, __LINE__, "publish", "Please init dova!");
    return;
  }
  DiagnosticValue value;
  value.header.stamp = dova::Time::now();
  value.header.frame_id = frame_id;
  value.name = name;
  value.level = level;
  value.code = code;
  value.message = message;
  dova::nh()->diag(value);
}

void Diagnostics::subscribe(
    Callback callback) {  // NOLINT(performance-unnecessary-value-param): the API's signature
  if (!dova::nh()->ok()) {
    mtrace(Log::ERROR, __FILE__, __LINE__, "subscribe", "Please init dova!");
    return;
  }
  auto info = std::make_shared<MsgMapInfo>(detail::monotonicSeconds());

  auto deliver = [callback, info](const DiagnosticValuePtr& value) {
    std::lock_guard<std::mutex> lock(info->mutex);
    if (info->msgs.collect(value, detail::monotonicSeconds())) {
      // Only the first collected report finds the thread not started.
      if (!info->thread_started) {
        std::thread(handOver, callback, info).detach();
        info->thread_started = true;
      }
      return;
    }
    callback(value);
  };

  // Never destroyed, on purpose: the subscription lasts for the rest of the
  // process and the middleware may deliver to it at any time.
  auto* subscriber = new dova::Subscriber<DiagnosticValue>();
  keepForever(subscriber);
  subscriber->callback_ptr = std::move(deliver);
  subscriber->callback_kind = 2;
  subscriber->msg_type = subscriber->msg.getType();
  subscriber->msg_md5 = subscriber->msg.getMD5();
  subscriber->msg_def = subscriber->msg.getDefinition();
  subscriber->setTopic(dova::msgs::kDiagnosticsTopic);
  dova::nh()->subscribe(*subscriber, true, true, -1);  // result deliberately ignored
}

}  // namespace korcommon
