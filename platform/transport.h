#ifndef DOVA_PLATFORM_TRANSPORT_H_
#define DOVA_PLATFORM_TRANSPORT_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace dova::platform {

// A frame that arrived from another process: the publisher's message
// checksum and the frame bytes (32-byte prefix, then the message). Both are
// only valid during the call; the bytes have not been checked yet. A
// handler's calls never overlap.
using RemoteFrameHandler =
    std::function<void(std::string_view md5, const uint8_t* frame, size_t size)>;

// The link between this process and the others. Same-process deliveries
// never pass through it; a transport only carries frames out and brings
// frames in. Implementations are thread-safe.
class Transport {
 public:
  virtual ~Transport() = default;

  // Whether frames sent here can reach another process; when not, the
  // dispatcher builds no frame for the transport's sake.
  virtual bool reachesOtherProcesses() const = 0;

  // Sends one frame on `topic`. For a latched topic `key` names the state the
  // frame replaces (the report's name for diagnostics), so a process that
  // joins later receives the latest frame of every key.
  virtual void send(const std::string& topic, const std::string& md5, const std::string& key,
                    const uint8_t* frame, size_t size) = 0;

  // Delivers the frames other processes publish on `topic` to `handler`, on
  // a thread of the transport, until stop(). With `latched` the latest frame
  // of every key of every live publisher comes first. `in_place` tells that
  // the handler runs the subscriber itself (rather than queueing the frame
  // for a thread of its own), so the next frame's wake-up is on the path to
  // the subscriber. False when the transport cannot listen.
  virtual bool listen(const std::string& topic, bool latched, bool reliable, bool in_place,
                      RemoteFrameHandler handler) = 0;

  // How many subscribers in other processes this process's publications on
  // `topic` currently reach.
  virtual int matchedSubscribers(const std::string& topic) = 0;

  // Stops sending and receiving; no handler call starts after it returns.
  // What was sent is first given a moment to reach the matched subscribers.
  virtual void stop() = 0;
};

// What a transport is created for.
struct TransportSettings {
  std::string node_name;
  int domain_id = 0;  // the DDS domain, for transports that have domains
};

// Creates a transport; returns null with `error` set when it cannot start.
using TransportMaker = std::unique_ptr<Transport> (*)(const TransportSettings& settings,
                                                      std::string& error);

}  // namespace dova::platform

#endif  // DOVA_PLATFORM_TRANSPORT_H_
