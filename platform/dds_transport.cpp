#include <dds/dds.h>
#include <dds/ddsi/ddsi_serdata.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "dds_frame_sample.h"
#include "dova/guid.h"
#include "dova/options.h"
#include "dova/trace.h"
#include "transport.h"
#include "yield_while.h"

namespace dova::platform {
namespace {

// Loopback only, with unicast discovery among the processes of this machine:
// the loopback interface carries no multicast.
constexpr char kLoopbackConfiguration[] =
    "<CycloneDDS><Domain id=\"any\">"
    "<General><Interfaces><NetworkInterface name=\"lo\"/></Interfaces>"
    "<AllowMulticast>false</AllowMulticast></General>"
    "<Discovery><ParticipantIndex>auto</ParticipantIndex>"
    "<MaxAutoParticipantIndex>60</MaxAutoParticipantIndex>"
    "<Peers><Peer address=\"127.0.0.1\"/></Peers></Discovery>"
    "</Domain></CycloneDDS>";

// The transport's own: the same, with frames written back to back packed
// into one message (see DdsLinks::write for when they go out).
std::string transportConfiguration() {
  std::string configuration = kLoopbackConfiguration;
  configuration.insert(configuration.rfind("</Domain>"),
                       "<Internal><WriteBatch>true</WriteBatch></Internal>");
  return configuration;
}

constexpr int kTakeBatch = 32;
constexpr dds_duration_t kAckWait = DDS_SECS(2);
constexpr auto kWriteWait = std::chrono::seconds(5);
constexpr dds_duration_t kAcknowledgementPoll = DDS_MSECS(1);
// Bursts share messages. A write that follows the writer's previous one
// within kBurstStart starts a burst: it and the writes that follow within
// kBurstGap wait in the writer's message. The message goes out when it fills
// up, with the write that finds the oldest waiting frame kMaxHold old, or when
// the flushing thread finds the burst over (no write for kBurstGap).
//
// That thread looks kFlushDelay after a burst started, then less and less
// often while it goes on, at least every kMaxHold: a long burst is a stream,
// which the thread's wake-ups would only slow down.
//
// A frame written after the transport received one (since the writer's
// previous write) never starts a burst: it may be the answer someone waits
// for. On loopback the answer can arrive while the question is still being
// sent, so the pause says nothing.
constexpr auto kBurstStart = std::chrono::microseconds(2);
constexpr auto kBurstGap = std::chrono::microseconds(15);
constexpr auto kFlushDelay = std::chrono::microseconds(50);
constexpr auto kMaxHold = std::chrono::microseconds(250);
constexpr int64_t kBurstStartNanoseconds = std::chrono::nanoseconds(kBurstStart).count();
constexpr int64_t kBurstGapNanoseconds = std::chrono::nanoseconds(kBurstGap).count();
constexpr int64_t kMaxHoldNanoseconds = std::chrono::nanoseconds(kMaxHold).count();

// Nanoseconds on the steady clock, which counts from boot: never 0.
int64_t steadyNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// "/diagnostics_value" is carried on the DDS topic "dova/diagnostics_value".
std::string ddsTopicName(const std::string& topic) {
  return topic.rfind('/', 0) == 0 ? "dova" + topic : "dova/" + topic;
}

// How many of Cyclone's listener calls of a transport the calling thread is inside.
int& listenerDepth() {
  thread_local int depth = 0;
  return depth;
}

// Marks the calling thread as one of Cyclone's, running a listener, for a scope.
class InListener {
 public:
  InListener() { ++listenerDepth(); }
  ~InListener() { --listenerDepth(); }
  InListener(const InListener&) = delete;
  InListener& operator=(const InListener&) = delete;
};

// Keeps one thread of this process runnable for a while after a lone frame
// arrived, yielding the processor to any thread that wants it. When reports
// come one after another, the next one then finds a processor awake: waking
// Cyclone's receiving thread on a processor that went idle costs more than
// the whole delivery on a virtual machine. The thread goes to sleep when no
// frame came for 100 us, and at once when a yield came back late (the
// processors are busy; staying awake would only take time from others).
// Thread-safe.
class WakeKeeper {
 public:
  WakeKeeper() : thread_([this] { run(); }) {}
  ~WakeKeeper() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      ends_ = true;
      asked_.notify_one();
    }
    thread_.join();
  }
  WakeKeeper(const WakeKeeper&) = delete;
  WakeKeeper& operator=(const WakeKeeper&) = delete;

  // Called after a frame that came alone was handed over.
  void loneFrameArrived() {
    const Clock::rep now = Clock::now().time_since_epoch().count();
    // Frames of a stream follow each other closely: the receiving thread
    // keeps its processor busy itself, and staying awake would slow it.
    if (now - last_arrival_.exchange(now) < kStreamGapTicks) return;
    awake_until_.store(now + kStayAwakeTicks);
    if (!sleeping_.load()) return;
    std::lock_guard<std::mutex> lock(mutex_);
    asked_.notify_one();
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr Clock::rep kStayAwakeTicks =
      std::chrono::duration_cast<Clock::duration>(std::chrono::microseconds(100)).count();
  static constexpr Clock::rep kStreamGapTicks =
      std::chrono::duration_cast<Clock::duration>(std::chrono::microseconds(15)).count();
  bool wanted() const { return Clock::now().time_since_epoch().count() < awake_until_.load(); }

  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      // Sequentially consistent with loneFrameArrived(): either it sees this
      // thread asleep and wakes it, or this thread sees its time.
      sleeping_.store(true);
      asked_.wait(lock, [this] { return ends_ || wanted(); });
      sleeping_.store(false);
      if (ends_) return;
      lock.unlock();
      if (!yieldWhile([this] { return wanted(); })) awake_until_.store(0);
      lock.lock();
    }
  }

  std::atomic<Clock::rep> awake_until_{0};
  std::atomic<Clock::rep> last_arrival_{0};
  std::atomic<bool> sleeping_{false};
  std::mutex mutex_;  // guards ends_, pairs with asked_
  bool ends_ = false;
  std::condition_variable asked_;
  std::thread thread_;
};

// The function a reader's frames go to.
struct Reader {
  std::mutex mutex;  // held while frames are handed over: one call of the handler at a time
  RemoteFrameHandler handler;
  const std::atomic<bool>* stopping = nullptr;  // the transport's: no handler starts once set
  WakeKeeper* wake_keeper = nullptr;          // the transport's, for handlers that run subscribers
  std::atomic<uint64_t>* received = nullptr;  // the transport's count of frames handed over
};

// A DDS writer and the state of its burst (see kBurstGap). Thread-safe.
struct WriterLink {
  WriterLink(dds_entity_t writer, const ddsi_sertype* sample_type)
      : entity(writer), type(sample_type) {}
  const dds_entity_t entity;
  const ddsi_sertype* const type;      // of the writer's topic, which keeps it
  std::atomic<int64_t> last_write{0};  // steadyNanoseconds() at the end of the latest write
  std::atomic<int64_t> held_since{0};  // of the oldest write not sent yet; 0: none waits
  // How many frames the transport had received at the latest write.
  std::atomic<uint64_t> received_before{0};
};

// A DDS topic and the sample type it holds on to.
struct DdsTopic {
  dds_entity_t entity;
  const ddsi_sertype* type;
};

// A frame published from a listener, in line for the sending thread.
struct PendingFrame {
  std::string topic;
  WriterLink* writer = nullptr;
  FrameSampleRef sample;
};

// Hands every frame waiting in `reader` to its handler, in the order they were
// written. Cyclone's take groups samples by instance (a report's name), which
// would hand a publisher's reports of different names out of order; so all
// that waits is taken first, then ordered by the writers' time stamps (a
// writer's stamps never go back while its clock does not, and samples with
// equal stamps keep the order of the take). Samples are taken serialized.
// Returns how many frames there were.
size_t deliverWaiting(dds_entity_t entity, Reader& reader) {
  struct Batch {
    ddsi_serdata* samples[kTakeBatch] = {};
    dds_sample_info_t infos[kTakeBatch];
    dds_return_t taken = 0;
  };
  struct Waiting {
    dds_time_t written;
    ddsi_serdata* sample;
  };
  const std::lock_guard<std::mutex> one_at_a_time(reader.mutex);
  Batch first;  // enough unless a backlog waits
  std::vector<std::unique_ptr<Batch>> more;
  Waiting inline_frames[kTakeBatch];
  std::vector<Waiting> spilled;
  size_t count = 0;
  for (Batch* batch = &first;;) {
    batch->taken = dds_takecdr(entity, batch->samples, kTakeBatch, batch->infos, DDS_ANY_STATE);
    for (int i = 0; i < batch->taken; ++i) {
      if (!batch->infos[i].valid_data) continue;
      const Waiting waiting{batch->infos[i].source_timestamp, batch->samples[i]};
      if (count < kTakeBatch) {
        inline_frames[count] = waiting;
      } else {
        if (spilled.empty()) spilled.assign(inline_frames, inline_frames + kTakeBatch);
        spilled.push_back(waiting);
      }
      ++count;
    }
    // A frame that arrives from here on calls the listener again.
    if (batch->taken < kTakeBatch) break;
    more.push_back(std::make_unique<Batch>());
    batch = more.back().get();
  }
  // Before any handler runs: what it publishes answers these frames.
  reader.received->fetch_add(count);
  Waiting* frames = spilled.empty() ? inline_frames : spilled.data();
  const auto earlier = [](const Waiting& a, const Waiting& b) { return a.written < b.written; };
  // Mostly in order already; the stable sort would allocate its buffer even then.
  if (!std::is_sorted(frames, frames + count, earlier))
    std::stable_sort(frames, frames + count, earlier);
  for (size_t i = 0; i < count; ++i) {
    ddsi_serdata* sample = frames[i].sample;
    const size_t size = ddsi_serdata_size(sample);
    ddsrt_iovec_t serialized{};
    ddsi_serdata* referenced = ddsi_serdata_to_ser_ref(sample, 0, size, &serialized);
    SampleCursor cursor(static_cast<const uint8_t*>(serialized.iov_base), serialized.iov_len);
    std::string_view publisher;
    std::string_view key;
    std::string_view md5;
    const uint8_t* data = nullptr;
    size_t length = 0;
    if (cursor.text(publisher) && cursor.text(key) && cursor.text(md5) &&
        cursor.octets(data, length)) {
      reader.handler(md5, data, length);
    } else {
      mtrace(WARN, __FILE__, __LINE__, "receive", false,
             "dropped a sample of %zu bytes that is not a frame", size);
    }
    ddsi_serdata_to_ser_unref(referenced, &serialized);
  }
  const auto release = [](Batch& batch) {
    for (int i = 0; i < batch.taken; ++i) ddsi_serdata_unref(batch.samples[i]);
  };
  release(first);
  for (const auto& batch : more) release(*batch);
  return count;
}

// Cyclone's listener: frames are handed over on the thread that received them.
void onDataAvailable(dds_entity_t entity, void* argument) {
  Reader& reader = *static_cast<Reader*>(argument);
  if (reader.stopping->load(std::memory_order_acquire)) return;
  const InListener in_listener;
  // Frames that came together were queued while the processors were busy:
  // nothing to stay awake for.
  const size_t frames = deliverWaiting(entity, reader);
  if (frames == 1 && reader.wake_keeper != nullptr) reader.wake_keeper->loneFrameArrived();
}

// Frames arrive in a Cyclone listener, on the thread that received them: the
// shortest way from the network to a subscriber. That thread also takes in
// the acknowledgements for this process's writers, so a handler that
// publishes must never wait there for a writer's history to drain: it would
// wait for acknowledgements only the waiting thread could read. Writers
// therefore never wait inside Cyclone. A frame published from a listener is
// written at once when its history has room; otherwise it is queued, with
// every later frame of listeners, for a sending thread that waits. Other
// threads wait for room themselves.
// Thread-safe; DdsTransport below owns it, together with a teardown that may
// outlive the transport object.
class DdsLinks {
 public:
  DdsLinks(dds_entity_t domain, dds_entity_t participant, std::string publisher)
      : domain_(domain), participant_(participant), publisher_(std::move(publisher)) {
    sender_ = std::thread([this] { sendQueued(); });
    flusher_ = std::thread([this] { flushBursts(); });
  }

  DdsLinks(const DdsLinks&) = delete;
  DdsLinks& operator=(const DdsLinks&) = delete;

  void send(const std::string& topic, const std::string& md5, const std::string& key,
            const uint8_t* frame, size_t size) {
    WriterLink* const writer = writerFor(topic);
    if (writer == nullptr) return;
    FrameSampleRef sample = makeFrameSample(writer->type, publisher_, key, md5, frame, size);
    if (!sample) {
      mtrace(WARN, __FILE__, __LINE__, "send", false,
             "topic %s: a frame of %zu bytes is too large to send", topic.c_str(), size);
      return;
    }
    if (listenerDepth() == 0) {
      write(topic, *writer, sample.get(), true);
      return;
    }
    bool queued;
    {
      std::lock_guard<std::mutex> lock(queue_mutex_);
      queued = !queue_.empty();  // what waits there goes first
    }
    if (!queued && write(topic, *writer, sample.get(), false)) return;
    std::lock_guard<std::mutex> lock(queue_mutex_);
    queue_.push_back(PendingFrame{topic, writer, std::move(sample)});
    queue_changed_.notify_one();
  }

  bool listen(const std::string& topic, bool latched, bool reliable, bool in_place,
              RemoteFrameHandler handler) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) return false;
    const DdsTopic* const dds_topic = topicFor(topic);
    if (dds_topic == nullptr) return false;

    dds_qos_t* qos = dds_create_qos();
    dds_qset_reliability(qos, reliable ? DDS_RELIABILITY_RELIABLE : DDS_RELIABILITY_BEST_EFFORT,
                         DDS_SECS(1));
    dds_qset_durability(qos, latched ? DDS_DURABILITY_TRANSIENT_LOCAL : DDS_DURABILITY_VOLATILE);
    dds_qset_history(qos, DDS_HISTORY_KEEP_ALL, 0);
    // Same-process deliveries never go through the network.
    dds_qset_ignorelocal(qos, DDS_IGNORELOCAL_PARTICIPANT);

    auto context = std::make_unique<Reader>();
    context->handler = std::move(handler);
    context->stopping = &stopping_;
    context->received = &frames_received_;
    if (in_place) context->wake_keeper = &wake_keeper_;
    dds_listener_t* listener = dds_create_listener(context.get());
    dds_lset_data_available(listener, onDataAvailable);
    const dds_entity_t reader = dds_create_reader(participant_, dds_topic->entity, qos, listener);
    dds_delete_listener(listener);
    dds_delete_qos(qos);
    if (reader < 0) {
      mtrace(ERROR, __FILE__, __LINE__, "listen", false, "topic %s: cannot create a reader: %s",
             topic.c_str(), dds_strretcode(reader));
      return false;
    }
    readers_.push_back(std::move(context));
    return true;
  }

  int matchedSubscribers(const std::string& topic) {
    const WriterLink* const writer = writerFor(topic);
    if (writer == nullptr) return 0;
    dds_publication_matched_status_t status{};
    if (dds_get_publication_matched_status(writer->entity, &status) != DDS_RETCODE_OK) return 0;
    return static_cast<int>(status.current_count);
  }

  // Refuses later writes and readers and keeps handlers from starting; false
  // when stopping had begun before.
  bool beginStop() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) return false;
    stopped_ = true;  // from here on writers_ and readers_ no longer change
    stopping_.store(true, std::memory_order_release);
    return true;
  }

  // REQUIRES: beginStop() returned true, and the calling thread is not in a listener call.
  void finishStop() {
    // What listeners queued goes out first.
    {
      std::lock_guard<std::mutex> lock(queue_mutex_);
      draining_ = true;
      queue_changed_.notify_all();
    }
    sender_.join();
    {
      std::lock_guard<std::mutex> lock(flush_mutex_);
      flushing_ends_ = true;
      flush_asked_.notify_all();
    }
    flusher_.join();
    for (const auto& writer : writers_) dds_write_flush(writer.second->entity);
    // Reliable delivery: let the matched readers acknowledge what was sent.
    for (const auto& writer : writers_) dds_wait_for_acks(writer.second->entity, kAckWait);
    // Deleting the participant deletes its readers, writers and listeners,
    // and waits for the listener call running now, if any.
    dds_delete(participant_);
    dds_delete(domain_);
  }

 private:
  // Writes one frame; false, with nothing written, when the writer's history
  // is full and the caller may not wait for it to drain. Waiting callers try
  // again as acknowledgements come in, for at most kWriteWait. A frame that
  // follows its writer's previous one closely waits to share a message (see
  // kBurstGap); any other goes out at once, with what waited before it.
  bool write(const std::string& topic, WriterLink& writer, ddsi_serdata* sample, bool may_wait) {
    const int64_t started = steadyNanoseconds();
    // The writer never blocks in Cyclone (its longest wait is zero): a full
    // history returns at once, without the frame. Each attempt consumes a
    // reference to the sample.
    dds_return_t result = dds_writecdr(writer.entity, ddsi_serdata_ref(sample));
    if (result == DDS_RETCODE_TIMEOUT && !may_wait) return false;
    if (result == DDS_RETCODE_TIMEOUT) {
      // What waits in the writer's message has to reach the readers before they can acknowledge it.
      dds_write_flush(writer.entity);
      const auto give_up = std::chrono::steady_clock::now() + kWriteWait;
      while (result == DDS_RETCODE_TIMEOUT && std::chrono::steady_clock::now() < give_up) {
        dds_wait_for_acks(writer.entity, kAcknowledgementPoll);
        result = dds_writecdr(writer.entity, ddsi_serdata_ref(sample));
      }
    }
    if (result != DDS_RETCODE_OK) {
      mtrace(WARN, __FILE__, __LINE__, "send", false, "topic %s: a frame was not sent: %s",
             topic.c_str(), dds_strretcode(result));
    }
    // The pause counts from the end of the previous write: the time that one
    // took to send (on loopback a message reaches the reader within the call)
    // does not count.
    const int64_t pause = started - writer.last_write.load();
    const uint64_t received = frames_received_.load();
    const bool answers = writer.received_before.exchange(received) != received;
    const int64_t held_since = writer.held_since.load();
    if (held_since != 0
            ? pause >= kBurstGapNanoseconds || started - held_since >= kMaxHoldNanoseconds
            : answers || pause >= kBurstStartNanoseconds) {
      writer.held_since.store(0);
      dds_write_flush(writer.entity);
    } else {
      // Sequentially consistent with flushBursts(): either it sees this frame
      // waiting, or this thread sees it idle and wakes it.
      if (held_since == 0) writer.held_since.store(started);
      if (!flush_armed_.load() && !flush_armed_.exchange(true)) {
        std::lock_guard<std::mutex> lock(flush_mutex_);
        flush_asked_.notify_one();
      }
    }
    writer.last_write.store(steadyNanoseconds());
    return true;
  }

  // Sends what waits in the writers whose burst is over or whose oldest
  // waiting frame is kMaxHold old; true when frames still wait.
  // REQUIRES: flush_mutex_ held.
  bool flushDue() {
    bool waiting = false;
    const int64_t now = steadyNanoseconds();
    for (WriterLink* writer : burst_writers_) {
      const int64_t held_since = writer->held_since.load();
      if (held_since == 0) continue;
      if (now - writer->last_write.load() < kBurstGapNanoseconds &&
          now - held_since < kMaxHoldNanoseconds) {
        waiting = true;
      } else if (writer->held_since.exchange(0) != 0) {
        dds_write_flush(writer->entity);
      }
    }
    return waiting;
  }

  // The flushing thread: looks at the writers while frames wait in them (see
  // kBurstStart), until stop().
  void flushBursts() {
    std::unique_lock<std::mutex> lock(flush_mutex_);
    std::chrono::microseconds delay = kFlushDelay;
    for (;;) {
      flush_asked_.wait(lock, [this] { return flush_armed_.load() || flushing_ends_; });
      // Released meanwhile, so bursts go on filling messages.
      flush_asked_.wait_for(lock, delay, [this] { return flushing_ends_; });
      if (flushing_ends_) return;  // stop() flushes every writer itself
      if (flushDue()) {
        delay = std::min(2 * delay, kMaxHold);
        continue;
      }
      delay = kFlushDelay;
      flush_armed_.store(false);
      // A frame written meanwhile may have seen the thread still armed.
      for (const WriterLink* writer : burst_writers_) {
        if (writer->held_since.load() != 0) flush_armed_.store(true);
      }
    }
  }

  // The sending thread: writes what listeners queued, in order, until stop()
  // has had the queue emptied. It may wait: it never runs a listener.
  void sendQueued() {
    std::unique_lock<std::mutex> lock(queue_mutex_);
    for (;;) {
      queue_changed_.wait(lock, [this] { return !queue_.empty() || draining_; });
      if (queue_.empty()) return;
      PendingFrame& next = queue_.front();
      lock.unlock();  // listeners only append meanwhile; the front stays
      write(next.topic, *next.writer, next.sample.get(), true);
      lock.lock();
      queue_.pop_front();  // only now: an empty queue means all of it was written
    }
  }

  // Null when the topic cannot be created. REQUIRES: mutex_ held.
  const DdsTopic* topicFor(const std::string& topic) {
    const auto known = topics_.find(topic);
    if (known != topics_.end()) return &known->second;
    ddsi_sertype* type = createFrameSampleType();
    const dds_entity_t created = dds_create_topic_sertype(participant_, ddsTopicName(topic).c_str(),
                                                          &type, nullptr, nullptr, nullptr);
    if (created < 0) {
      ddsi_sertype_unref(type);
      mtrace(ERROR, __FILE__, __LINE__, "topic", false, "cannot create DDS topic %s: %s",
             ddsTopicName(topic).c_str(), dds_strretcode(created));
      return nullptr;
    }
    return &(topics_[topic] = DdsTopic{created, type});
  }

  // Null once stopped or when the writer cannot be created.
  WriterLink* writerFor(const std::string& topic) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) return nullptr;
    const auto known = writers_.find(topic);
    if (known != writers_.end()) return known->second.get();
    const DdsTopic* const dds_topic = topicFor(topic);
    if (dds_topic == nullptr) return nullptr;

    dds_qos_t* qos = dds_create_qos();
    dds_qset_reliability(qos, DDS_RELIABILITY_RELIABLE, 0);  // see write()
    // Every frame reaches every live reader; a reader that joins later gets
    // the latest frame of each key only.
    dds_qset_history(qos, DDS_HISTORY_KEEP_ALL, 0);
    dds_qset_durability(qos, DDS_DURABILITY_TRANSIENT_LOCAL);
    dds_qset_durability_service(qos, 0, DDS_HISTORY_KEEP_LAST, 1, DDS_LENGTH_UNLIMITED,
                                DDS_LENGTH_UNLIMITED, DDS_LENGTH_UNLIMITED);
    dds_qset_ignorelocal(qos, DDS_IGNORELOCAL_PARTICIPANT);
    const dds_entity_t writer = dds_create_writer(participant_, dds_topic->entity, qos, nullptr);
    dds_delete_qos(qos);
    if (writer < 0) {
      mtrace(ERROR, __FILE__, __LINE__, "send", false, "topic %s: cannot create a writer: %s",
             topic.c_str(), dds_strretcode(writer));
      return nullptr;
    }
    WriterLink* const link =
        (writers_[topic] = std::make_unique<WriterLink>(writer, dds_topic->type)).get();
    std::lock_guard<std::mutex> flush_lock(flush_mutex_);
    burst_writers_.push_back(link);
    return link;
  }

  const dds_entity_t domain_;
  const dds_entity_t participant_;
  const std::string publisher_;
  std::atomic<bool> stopping_{false};
  std::atomic<uint64_t> frames_received_{0};  // by every reader, since the start

  std::mutex queue_mutex_;  // guards the two below
  std::deque<PendingFrame> queue_;
  bool draining_ = false;  // set by stop(): the sending thread ends once the queue is empty
  std::condition_variable queue_changed_;
  std::thread sender_;

  std::atomic<bool> flush_armed_{false};    // the flushing thread looks at the writers
  std::mutex flush_mutex_;                  // guards the three below
  std::vector<WriterLink*> burst_writers_;  // every writer, in writers_
  bool flushing_ends_ = false;              // set by stop()
  std::condition_variable flush_asked_;
  std::thread flusher_;

  WakeKeeper wake_keeper_;  // lives until the participant, and so every listener, is gone

  std::mutex mutex_;  // guards everything below
  bool stopped_ = false;
  std::map<std::string, DdsTopic> topics_;
  std::map<std::string, std::unique_ptr<WriterLink>> writers_;
  std::vector<std::unique_ptr<Reader>> readers_;  // what the listeners point to
};

class DdsTransport : public Transport {
 public:
  explicit DdsTransport(std::shared_ptr<DdsLinks> links) : links_(std::move(links)) {}
  ~DdsTransport() override { stop(); }

  bool reachesOtherProcesses() const override { return true; }
  void send(const std::string& topic, const std::string& md5, const std::string& key,
            const uint8_t* frame, size_t size) override {
    links_->send(topic, md5, key, frame, size);
  }
  bool listen(const std::string& topic, bool latched, bool reliable, bool in_place,
              RemoteFrameHandler handler) override {
    return links_->listen(topic, latched, reliable, in_place, std::move(handler));
  }
  int matchedSubscribers(const std::string& topic) override {
    return links_->matchedSubscribers(topic);
  }

  void stop() override {
    if (!links_->beginStop()) return;
    if (listenerDepth() == 0) {
      links_->finishStop();
      return;
    }
    // Stopped by a handler: the deletions would wait for the very listener
    // call making them, and the acknowledgements waited for arrive on its
    // thread. The rest runs on a thread of its own, which holds the links.
    std::thread([links = links_] { links->finishStop(); }).detach();
  }

 private:
  const std::shared_ptr<DdsLinks> links_;
};

}  // namespace

// The "dds" transport: Eclipse Cyclone DDS on the settings' domain. Without
// CYCLONEDDS_URI in the environment Cyclone is pinned to the loopback
// interface, so nothing leaves the machine; with it, Cyclone's own
// configuration rules.
std::unique_ptr<Transport> createDdsTransport(const TransportSettings& settings,
                                              std::string& error) {
  const int domain_id = settings.domain_id;
  const auto domain_number = static_cast<dds_domainid_t>(domain_id);
  dds_entity_t domain = 0;
  const char* uri = std::getenv("CYCLONEDDS_URI");
  if (uri == nullptr || *uri == '\0') {
    domain = dds_create_domain(domain_number, transportConfiguration().c_str());
    if (domain < 0) {
      error = std::string("cannot configure DDS domain: ") + dds_strretcode(domain);
      return nullptr;
    }
  }
  const dds_entity_t participant = dds_create_participant(domain_number, nullptr, nullptr);
  if (participant < 0) {
    error = std::string("cannot join DDS domain ") + std::to_string(domain_id) + ": " +
            dds_strretcode(participant);
    if (domain > 0) dds_delete(domain);
    return nullptr;
  }
  // Unique per process run, so two runs of one node never share DDS instances.
  const std::string publisher =
      settings.node_name + "/" + std::to_string(getpid()) + "/" + guid::uuid().substr(0, 8);
  return std::make_unique<DdsTransport>(std::make_shared<DdsLinks>(domain, participant, publisher));
}

}  // namespace dova::platform

const char* dova::ddsLoopbackConfiguration() { return platform::kLoopbackConfiguration; }
