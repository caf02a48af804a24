#ifndef DOVA_OS_NODE_HANDLE_BASE_H_
#define DOVA_OS_NODE_HANDLE_BASE_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "dova/guid.h"
#include "dova/msgs/frame_check.h"
#include "dova/msgs/msg.h"
#include "dova/os/threadpool.h"
#include "dova/trace.h"

namespace dova {

namespace diagnostic_msgs {
class DiagnosticValue;
}
namespace dova_msgs {
class Log;
}

class NodeHandleBase;

// The sender's node name from a frame's 32-byte transport prefix: the bytes
// up to the first NUL, or all 32 when there is none; "" when `len` < 32.
std::string getCallerId(uint8_t* data, int len);

// The untyped end of a subscription, as the middleware sees it: what the
// subscriber expects (type, checksum, definition, topic), how it wants to be
// served (latch, reliable, queue size) and the two entry points through which
// deliveries arrive. Deliveries may come from any middleware thread.
//
// The node handle keeps a plain pointer to a registered subscriber: whoever
// registers one keeps it alive for as long as the node may deliver to it.
class SubscriberBase {
 public:
  SubscriberBase();
  virtual ~SubscriberBase();

  SubscriberBase(const SubscriberBase&) = delete;
  SubscriberBase& operator=(const SubscriberBase&) = delete;

  // A received frame: the 32-byte transport prefix, then the encoded message.
  virtual void callback(uint8_t* data, int len) = 0;
  // A message from the same process, of the subscriber's own type.
  virtual void intraProcess(const std::shared_ptr<const Msg>& m) = 0;

  virtual bool negotiated() const { return is_negotiated; }
  virtual std::string getMsgType() const { return msg_type; }
  virtual std::string getMsgMD5() const { return msg_md5; }
  virtual std::string getMsgDef() const { return msg_def; }
  virtual void setCount(int value) { count = value; }
  virtual int getCount() const { return count; }
  virtual int getQueueSize() const { return queue_size; }
  virtual bool getReliable() const { return reliable; }
  virtual bool getLatch() const { return latch; }
  virtual void setEnabled(bool value);
  virtual bool getEnabled() const { return enabled; }
  virtual void setTopic(const std::string& topic_name);
  virtual std::string getTopic() const;

  // Hands the subscriber to the middleware. With `latch_state` the current
  // state of the topic is replayed on joining; `queue_length` -1 means
  // unbounded, and a bounded queue drops its oldest delivery. Given a handle
  // that is not the platform's own, only records the flags and answers true.
  virtual bool subscribe(NodeHandleBase* handle, bool latch_state, bool reliable_delivery,
                         int queue_length);

  uint32_t topic_id = 0;
  std::string msg_type;
  std::string msg_md5;
  std::string msg_def;
  bool is_negotiated = false;
  uint32_t callback_kind = 0;
  std::atomic<bool> enabled{true};  // deliveries are dropped while false
  int count = 0;
  bool latch = false;
  bool reliable = false;
  int queue_size = 0;
  // Whether a received frame holds exactly one encoded message of the
  // subscriber's type, so that callback() may decode it. Set by Subscriber<T>;
  // the platform drops every frame for a subscriber without one, since it
  // cannot vouch for a layout it does not know.
  bool (*frame_check)(const uint8_t* frame, size_t size) = nullptr;

 private:
  mutable std::mutex topic_mutex_;
  std::string topic_;
};

// The typed end of a subscription: turns a frame or a same-process message
// into a T and calls the user's function of the kind selected by
// `callback_kind` (0: const T&; 1: const T& and this; 2: shared pointer;
// 3: shared pointer and this).
template <typename T>
class Subscriber : public SubscriberBase {
 public:
  Subscriber() {
    msg_type = msg.getType();
    msg_md5 = msg.getMD5();
    msg_def = msg.getDefinition();
    frame_check = &msgs::isWellFormedFrame<T>;
  }

  // Decodes what follows the frame's transport prefix; the frame length is
  // deliberately not checked here: the platform checks every frame first.
  void callback(uint8_t* data, int len) override {
    if (!enabled) return;
    constexpr int kPrefixLength = static_cast<int>(msgs::kFramePrefixSize);
    switch (callback_kind) {
      case 0:
      case 1: {
        T value;
        value.caller_id = getCallerId(data, len);
        value.deserialize(data + msgs::kFramePrefixSize, len - kPrefixLength);
        if (callback_kind == 0) {
          callback_ref(value);
        } else {
          callback_ref_sub(value, this);
        }
        break;
      }
      case 2:
      case 3: {
        auto decoded = std::make_unique<T>();
        decoded->caller_id = getCallerId(data, len);
        static_cast<Msg&>(*decoded).deserialize(data + msgs::kFramePrefixSize, len - kPrefixLength);
        // Owned from here on and deleted through its concrete type: Msg has
        // no virtual destructor.
        const std::shared_ptr<const T> value(std::move(decoded));
        if (callback_kind == 2) {
          callback_ptr(value);
        } else {
          callback_ptr_sub(value, this);
        }
        break;
      }
      default:
        break;
    }
  }

  // The middleware guarantees that `m` holds a T, so no type check is made.
  // The pointer is passed on as it is, without a new reference: a T's Msg
  // part is its only base and sits at its start, so both views share the
  // same object and control block.
  void intraProcess(const std::shared_ptr<const Msg>& m) override {
    if (!enabled) return;
    switch (callback_kind) {
      case 0:
        callback_ref(static_cast<const T&>(*m));
        break;
      case 1:
        callback_ref_sub(static_cast<const T&>(*m), this);
        break;
      case 2:
        callback_ptr(reinterpret_cast<const std::shared_ptr<const T>&>(m));
        break;
      case 3:
        callback_ptr_sub(reinterpret_cast<const std::shared_ptr<const T>&>(m), this);
        break;
      default:
        break;
    }
  }

  T msg;  // a default prototype of the message type
  std::function<void(const T&)> callback_ref;
  std::function<void(const T&, SubscriberBase*)> callback_ref_sub;
  std::function<void(const std::shared_ptr<const T>&)> callback_ptr;
  std::function<void(const std::shared_ptr<const T>&, SubscriberBase*)> callback_ptr_sub;
};

// A process's access to the middleware. This plain base is what nh() answers
// whenever the middleware is not running: it is never ok(), its publishing
// operations do nothing and `inited` is 0, so callers can always call through
// nh() safely. The platform's own handle, created by dova::init, derives from it.
class NodeHandleBase {
 public:
  NodeHandleBase() = default;
  virtual ~NodeHandleBase();

  NodeHandleBase(const NodeHandleBase&) = delete;
  NodeHandleBase& operator=(const NodeHandleBase&) = delete;

  // True while the middleware is initialised and running.
  virtual bool ok() const;

  // Publishes a diagnostic report on "/diagnostics_value". The value lives
  // only for the call; the handle copies what it keeps.
  virtual void diag(const diagnostic_msgs::DiagnosticValue& value);

  // Publishes a log record on "/dova_log".
  virtual void log(const std::shared_ptr<const dova_msgs::Log>& record);

  // Lets a registered subscriber agree on the message checksum with the
  // publishers of its topic (mode 2).
  virtual void negotiateTopics(SubscriberBase* subscriber);

  // Registers `sub`: in modes 1 and 2 it gets an id and a one-thread worker
  // pool through which its deliveries run in order; in mode 0 deliveries
  // reach it on the transport's thread. The flags and the integer go to
  // SubscriberBase::subscribe unchanged. False when the middleware is not
  // initialised or the mode is unknown.
  template <typename T>
  bool subscribe(Subscriber<T>& sub, bool latch_state, bool reliable_delivery, int queue_length);

  // Non-zero once the middleware is initialised. Atomic: the middleware
  // clears it on shutdown while other threads may be reading it.
  std::atomic<uint32_t> inited{0};
  uint32_t mode = 0;             // 0, 1 or 2: how deliveries reach subscribers
  std::mutex subscribers_mutex;  // guards id generation, pool creation and the maps
  std::map<uint32_t, std::shared_ptr<ThreadPool>> pools;  // one pool per subscription id
  std::map<uint32_t, SubscriberBase*> subscribers;        // registered subscribers, not owned
};

// The process's node handle; never null. Thread-safe.
NodeHandleBase* nh();

template <typename T>
bool NodeHandleBase::subscribe(Subscriber<T>& sub, bool latch_state, bool reliable_delivery,
                               int queue_length) {
  if (inited == 0) {
    mtrace(ERROR, __FILE__, __LINE__, "subscribe", false, "DOVA no inited!");
    return false;
  }
  if (mode == 0) return sub.subscribe(this, latch_state, reliable_delivery, queue_length);
  if (mode != 1 && mode != 2) return false;

  uint32_t id = 0;
  {
    std::lock_guard<std::mutex> lock(subscribers_mutex);
    id = guid::uint32();
    sub.topic_id = id;
    if (mode == 2) sub.is_negotiated = true;
    pools[id] = std::make_shared<ThreadPool>("dova_pool", 1);
    subscribers[id] = &sub;
  }
  sub.subscribe(this, latch_state, reliable_delivery, queue_length);  // result deliberately ignored
  negotiateTopics(&sub);
  mtrace(DEBUG, __FILE__, __LINE__, "subscribe", false,
         "Subscribers[%u] topic_id: %u, topic_name: %s", id, sub.topic_id, sub.getTopic().c_str());
  return true;
}

}  // namespace dova

#endif  // DOVA_OS_NODE_HANDLE_BASE_H_
