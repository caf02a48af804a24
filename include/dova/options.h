#ifndef DOVA_OPTIONS_H_
#define DOVA_OPTIONS_H_

#include <optional>
#include <string>

namespace dova {

// How a node joins the middleware. Unset fields fall back to the environment
// ("DOVA_TRANSPORT", "DOVA_MODE", "DOVA_DOMAIN_ID"), then to the defaults.
struct Options {
  std::string transport;      // "local" or "dds"; empty: $DOVA_TRANSPORT, else "local"
  int mode = -1;              // 0, 1 or 2; -1: $DOVA_MODE, else 1
  bool intra_process = true;  // same-process deliveries skip encoding
  int domain_id = -1;         // DDS domain; -1: $DOVA_DOMAIN_ID, else 0
};

// The options the running node was started with, every field resolved;
// nullopt when the middleware is not running. Thread-safe.
std::optional<Options> runningOptions();

// The values dova::init accepts, as one clause for messages:
// "DOVA_TRANSPORT must be local or dds, DOVA_MODE 0, 1 or 2, DOVA_DOMAIN_ID 0 to 232".
std::string acceptedOptions();

// The Cyclone DDS configuration the "dds" transport uses when CYCLONEDDS_URI
// is not set: the loopback interface only, with unicast discovery among the
// processes of this machine. Given to other DDS programs (ddsperf, a
// hand-made participant), it lets them meet this machine's nodes on the same
// path.
const char* ddsLoopbackConfiguration();

}  // namespace dova

#endif  // DOVA_OPTIONS_H_
