#ifndef DOVA_PLATFORM_PLATFORM_NODE_HANDLE_H_
#define DOVA_PLATFORM_PLATFORM_NODE_HANDLE_H_

#include <atomic>
#include <string>

#include "dova/init.h"
#include "dova/os/node_handle_base.h"

namespace dova::platform {

// The node handle dova::init creates. It is ok() from init until shutdown;
// after shutdown it stays allocated (callers may still hold the pointer nh()
// gave them) but answers like the plain base handle.
class PlatformNodeHandle : public NodeHandleBase {
 public:
  PlatformNodeHandle(std::string node_name, const Options& options);

  bool ok() const override { return running_.load(std::memory_order_acquire); }

  const std::string& nodeName() const { return node_name_; }
  const Options& options() const { return options_; }

  // Ends the handle's service: ok() turns false and inited drops to 0.
  void stop();

 private:
  const std::string node_name_;
  const Options options_;
  std::atomic<bool> running_{true};
};

}  // namespace dova::platform

#endif  // DOVA_PLATFORM_PLATFORM_NODE_HANDLE_H_
