#include "dova/init.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "dds_transport.h"
#include "dova/msgs/frame_check.h"
#include "dova/trace.h"
#include "platform_node_handle.h"

namespace dova {

namespace {

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
  static Runtime* state = new Runtime;  // never freed: nh() may be called during exit
  return *state;
}

NodeHandleBase& plainHandle() {
  static NodeHandleBase* plain = new NodeHandleBase;
  return *plain;
}

// Parses a whole decimal integer; nullopt for anything else.
std::optional<long> parseInteger(const char* text) {
  if (text == nullptr || *text == '\0') return std::nullopt;
  errno = 0;
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (errno != 0 || *end != '\0') return std::nullopt;
  return value;
}

// Fills the unset fields of `options` from the environment and the defaults.
// Returns an explanation when a value is not acceptable.
std::string resolveOptions(Options& options) {
  if (options.transport.empty()) {
    const char* transport = std::getenv("DOVA_TRANSPORT");
    options.transport = (transport != nullptr && *transport != '\0') ? transport : "local";
  }
  if (options.transport != "local" && options.transport != "dds") {
    return "unknown transport \"" + options.transport + "\" (known: local, dds)";
  }
  if (options.mode == -1) {
    const char* text = std::getenv("DOVA_MODE");
    if (text == nullptr || *text == '\0') {
      options.mode = 1;
    } else {
      const std::optional<long> mode = parseInteger(text);
      if (!mode) return std::string("DOVA_MODE is not a number: \"") + text + "\"";
      options.mode = static_cast<int>(*mode < INT_MIN || *mode > INT_MAX ? -2 : *mode);
    }
  }
  if (options.mode < 0 || options.mode > 2) {
    return "unknown mode " + std::to_string(options.mode) + " (known: 0, 1, 2)";
  }
  if (options.domain_id == -1) {
    const char* text = std::getenv("DOVA_DOMAIN_ID");
    if (text == nullptr || *text == '\0') {
      options.domain_id = 0;
    } else {
      const std::optional<long> domain = parseInteger(text);
      if (!domain || *domain < 0 || *domain > 232) {
        return std::string("DOVA_DOMAIN_ID is not a domain id (0 to 232): \"") + text + "\"";
      }
      options.domain_id = static_cast<int>(*domain);
    }
  }
  if (options.domain_id < 0 || options.domain_id > 232) {
    return "domain id " + std::to_string(options.domain_id) + " is outside 0 to 232";
  }
  return std::string();
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
  const std::string problem = resolveOptions(resolved);
  if (!problem.empty()) {
    mtrace(ERROR, __FILE__, __LINE__, "init", false, "%s", problem.c_str());
    return false;
  }
  auto handle = std::make_unique<platform::PlatformNodeHandle>(node_name, resolved);
  if (resolved.transport == "dds") {
    std::string error;
    std::unique_ptr<platform::Transport> transport =
        platform::createDdsTransport(resolved.domain_id, node_name, error);
    if (!transport) {
      mtrace(ERROR, __FILE__, __LINE__, "init", false, "%s", error.c_str());
      handle->stop();
      return false;
    }
    handle->bus().attachTransport(std::move(transport));
  }
  state.handle = std::move(handle);
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

namespace platform {

PlatformNodeHandle* runningHandle() { return runtime().running.load(std::memory_order_acquire); }

}  // namespace platform

std::string getNodeName() {
  // Lock-free: the trace logger asks on every call that passes its filter.
  const platform::PlatformNodeHandle* running = runtime().running.load(std::memory_order_acquire);
  return running != nullptr ? running->nodeName() : std::string();
}

NodeHandleBase* nh() {
  Runtime& state = runtime();
  if (NodeHandleBase* installed = state.installed.load(std::memory_order_acquire)) {
    return installed;
  }
  if (NodeHandleBase* running = state.running.load(std::memory_order_acquire)) return running;
  return &plainHandle();
}

int remoteSubscriberCount(const std::string& topic) {
  platform::PlatformNodeHandle* running = platform::runningHandle();
  return running == nullptr ? 0 : running->bus().remoteSubscribers(topic);
}

NodeHandleBase* setNodeHandle(NodeHandleBase* handle) {
  return runtime().installed.exchange(handle, std::memory_order_acq_rel);
}

std::string getCallerId(uint8_t* data, int len) {
  if (data == nullptr || len < static_cast<int>(msgs::kFramePrefixSize)) return std::string();
  const char* prefix = reinterpret_cast<const char*>(data);
  return std::string(prefix, strnlen(prefix, msgs::kFramePrefixSize));
}

}  // namespace dova
