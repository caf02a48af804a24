#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "dova/init.h"
#include "dova/options.h"
#include "dova/trace.h"
#include "platform_node_handle.h"
#include "resolve_options.h"
#include "transport_factory.h"

namespace dova {

namespace {

// The process's one node: the handle init created, and the one installed in
// its place, if any.
struct Runtime {
  std::mutex mutex;  // serialises init and shutdown
  std::unique_ptr<platform::PlatformNodeHandle> handle;
  // Handles of earlier runs: another thread may still be inside a call on a
  // pointer that nh() gave it, so they live until the process ends.
  std::vector<std::unique_ptr<platform::PlatformNodeHandle>> retired;
  std::atomic<platform::PlatformNodeHandle*> running{nullptr};
  std::atomic<NodeHandleBase*> installed{nullptr};
};

Runtime& runtime() {
  static auto* state = new Runtime;  // never freed: nh() may be called during exit
  return *state;
}

NodeHandleBase& plainHandle() {
  static auto* plain = new NodeHandleBase;
  return *plain;
}

platform::PlatformNodeHandle* runningHandle() {
  return runtime().running.load(std::memory_order_acquire);
}

}  // namespace

bool init(const std::string& node_name, const Options& options) {
  Runtime& state = runtime();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (state.handle) {
    mtrace(ERROR, __FILE__, __LINE__, "init", false,
           "dova is already initialised as node \"%s\"; call shutdown first",
           state.handle->nodeName().c_str());
    return false;
  }
  if (node_name.empty()) {
    mtrace(ERROR, __FILE__, __LINE__, "init", false, "the node name must not be empty");
    return false;
  }
  Options resolved = options;
  const std::string problem = platform::resolveOptions(resolved);
  if (!problem.empty()) {
    mtrace(ERROR, __FILE__, __LINE__, "init", false, "%s", problem.c_str());
    return false;
  }
  std::string error;
  std::unique_ptr<platform::Transport> transport =
      platform::createTransport(resolved.transport, {node_name, resolved.domain_id}, error);
  if (!transport) {
    mtrace(ERROR, __FILE__, __LINE__, "init", false, "%s", error.c_str());
    return false;
  }
  state.handle =
      std::make_unique<platform::PlatformNodeHandle>(node_name, resolved, std::move(transport));
  state.running.store(state.handle.get(), std::memory_order_release);
  return true;
}

void shutdown() {
  Runtime& state = runtime();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (!state.handle) return;
  state.running.store(nullptr, std::memory_order_release);
  state.handle->stop();
  state.retired.push_back(std::move(state.handle));
}

std::string getNodeName() {
  // Lock-free: the trace logger asks on every call that passes its filter.
  const platform::PlatformNodeHandle* running = runningHandle();
  return running != nullptr ? running->nodeName() : std::string();
}

std::optional<Options> runningOptions() {
  const platform::PlatformNodeHandle* running = runningHandle();
  if (running == nullptr) return std::nullopt;
  return running->options();
}

NodeHandleBase* nh() {
  Runtime& state = runtime();
  if (NodeHandleBase* installed = state.installed.load(std::memory_order_acquire)) {
    return installed;
  }
  if (NodeHandleBase* running = state.running.load(std::memory_order_acquire)) return running;
  return &plainHandle();
}

NodeHandleBase* setNodeHandle(NodeHandleBase* handle) {
  return runtime().installed.exchange(handle, std::memory_order_acq_rel);
}

int remoteSubscriberCount(const std::string& topic) {
  platform::PlatformNodeHandle* running = runningHandle();
  return running == nullptr ? 0 : running->remoteSubscribers(topic);
}

}  // namespace dova
