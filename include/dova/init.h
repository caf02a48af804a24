#ifndef DOVA_INIT_H_
#define DOVA_INIT_H_

#include <cstdint>
#include <string>

#include "dova/options.h"
#include "dova/os/node_handle_base.h"

namespace dova {

// Starts the middleware for this process under `node_name`. Returns false,
// with an ERROR trace and nothing changed, for a second init without
// shutdown, an empty name, an unknown transport or mode, a domain id out of
// range, or a transport that cannot start. Thread-safe.
bool init(const std::string& node_name, const Options& options = {});

// Stops deliveries and joins the platform's threads; nh() answers the plain
// base handle afterwards. Does nothing when the middleware is not running.
void shutdown();

// The name given to init, or "" when the middleware is not running.
std::string getNodeName();

// Installs another node handle (a test double or another middleware) that
// nh() then answers. Returns the previously installed one; nullptr restores
// the platform's own. The caller keeps ownership and keeps the handle alive
// while it is installed.
NodeHandleBase* setNodeHandle(NodeHandleBase* handle);

// How many subscribers in other processes this node's publications on
// `topic` currently reach (a publisher can wait for its audience before it
// starts); 0 on the local transport or when the middleware is not running.
int remoteSubscriberCount(const std::string& topic);

// getCallerId(data, len), the sender's node name from a frame's transport
// prefix, is declared with the node handle in dova/os/node_handle_base.h.

}  // namespace dova

#endif  // DOVA_INIT_H_
