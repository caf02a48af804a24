#include <dds/dds.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "dova/guid.h"
#include "dova/options.h"
#include "dova/trace.h"
#include "frame.h"
#include "transport.h"

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

constexpr int kTakeBatch = 32;
constexpr dds_duration_t kAckWait = DDS_SECS(2);

// "/diagnostics_value" is carried on the DDS topic "dova/diagnostics_value".
std::string ddsTopicName(const std::string& topic) {
  return topic.rfind('/', 0) == 0 ? "dova" + topic : "dova/" + topic;
}

// A reader and the function its frames go to.
struct Reader {
  dds_entity_t entity = 0;
  RemoteFrameHandler handler;
};

// Hands every frame waiting in `reader` to its handler, in the order they were
// written. Cyclone's take groups samples by instance (a report's name), which
// would hand a publisher's reports of different names out of order; so all
// that waits is taken first, then ordered by the writers' time stamps (a
// writer's stamps never go back while its clock does not, and samples with
// equal stamps keep the order of the take).
void deliverWaiting(const Reader& reader) {
  struct Batch {
    void* samples[kTakeBatch] = {};
    dds_sample_info_t infos[kTakeBatch];
    dds_return_t taken = 0;
  };
  std::vector<std::unique_ptr<Batch>> batches;
  std::vector<std::pair<dds_time_t, const dova_wire_Frame*>> frames;
  for (;;) {
    auto batch = std::make_unique<Batch>();  // samples[0] null: borrowed from Cyclone
    batch->taken = dds_take(reader.entity, batch->samples, batch->infos, kTakeBatch, kTakeBatch);
    if (batch->taken <= 0) break;
    for (int i = 0; i < batch->taken; ++i) {
      if (!batch->infos[i].valid_data) continue;
      frames.emplace_back(batch->infos[i].source_timestamp,
                          static_cast<const dova_wire_Frame*>(batch->samples[i]));
    }
    batches.push_back(std::move(batch));
  }
  std::stable_sort(frames.begin(), frames.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  for (const auto& entry : frames) {
    const dova_wire_Frame& frame = *entry.second;
    reader.handler(frame.md5 == nullptr ? std::string() : std::string(frame.md5),
                   frame.data._buffer, frame.data._length);
  }
  for (const auto& batch : batches) dds_return_loan(reader.entity, batch->samples, batch->taken);
}

// Frames arrive on a thread of the transport's own, not in a Cyclone listener:
// a listener runs on Cyclone's receive thread, which also takes in the
// acknowledgements for this process's writers. A handler that publishes from
// there blocks, once the writer holds too many unacknowledged frames, on
// acknowledgements that the blocked thread itself would have to read, until
// the write times out and the frame is lost.
class DdsTransport : public Transport {
 public:
  DdsTransport(dds_entity_t domain, dds_entity_t participant, std::string publisher)
      : domain_(domain),
        participant_(participant),
        publisher_(std::move(publisher)),
        waitset_(dds_create_waitset(participant)),
        wake_(dds_create_guardcondition(participant)) {
    dds_waitset_attach(waitset_, wake_, 0);
    delivery_ = std::thread([this] { deliver(); });
  }

  ~DdsTransport() override { stop(); }

  bool reachesOtherProcesses() const override { return true; }

  void send(const std::string& topic, const std::string& md5, const std::string& key,
            const uint8_t* frame, size_t size) override {
    const dds_entity_t writer = writerFor(topic);
    if (writer <= 0) return;
    dova_wire_Frame sample{};
    sample.publisher = const_cast<char*>(publisher_.c_str());
    sample.key = const_cast<char*>(key.c_str());
    sample.md5 = const_cast<char*>(md5.c_str());
    sample.data._buffer = const_cast<uint8_t*>(frame);
    sample.data._length = static_cast<uint32_t>(size);
    sample.data._maximum = static_cast<uint32_t>(size);
    sample.data._release = false;
    const dds_return_t result = dds_write(writer, &sample);
    if (result != DDS_RETCODE_OK) {
      mtrace(WARN, __FILE__, __LINE__, "send", false, "topic %s: a frame was not sent: %s",
             topic.c_str(), dds_strretcode(result));
    }
  }

  bool listen(const std::string& topic, bool latched, bool reliable,
              RemoteFrameHandler handler) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) return false;
    const dds_entity_t dds_topic = topicFor(topic);
    if (dds_topic <= 0) return false;

    dds_qos_t* qos = dds_create_qos();
    dds_qset_reliability(qos, reliable ? DDS_RELIABILITY_RELIABLE : DDS_RELIABILITY_BEST_EFFORT,
                         DDS_SECS(1));
    dds_qset_durability(qos, latched ? DDS_DURABILITY_TRANSIENT_LOCAL : DDS_DURABILITY_VOLATILE);
    dds_qset_history(qos, DDS_HISTORY_KEEP_ALL, 0);
    // Same-process deliveries never go through the network.
    dds_qset_ignorelocal(qos, DDS_IGNORELOCAL_PARTICIPANT);

    auto context = std::make_unique<Reader>();
    context->handler = std::move(handler);
    const dds_entity_t reader = dds_create_reader(participant_, dds_topic, qos, nullptr);
    dds_delete_qos(qos);
    if (reader < 0) {
      mtrace(ERROR, __FILE__, __LINE__, "listen", false, "topic %s: cannot create a reader: %s",
             topic.c_str(), dds_strretcode(reader));
      return false;
    }
    context->entity = reader;
    dds_set_status_mask(reader, DDS_DATA_AVAILABLE_STATUS);
    dds_waitset_attach(waitset_, reader, reinterpret_cast<dds_attach_t>(context.get()));
    readers_.push_back(std::move(context));
    return true;
  }

  int matchedSubscribers(const std::string& topic) override {
    const dds_entity_t writer = writerFor(topic);
    if (writer <= 0) return 0;
    dds_publication_matched_status_t status{};
    if (dds_get_publication_matched_status(writer, &status) != DDS_RETCODE_OK) return 0;
    return static_cast<int>(status.current_count);
  }

  void stop() override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopped_) return;
      stopped_ = true;  // from here on writers_ no longer changes
    }
    // Reliable delivery: let the matched readers acknowledge what was sent.
    for (const auto& writer : writers_) dds_wait_for_acks(writer.second, kAckWait);
    // The handler running now, if any, is the last one.
    stopping_ = true;
    dds_set_guardcondition(wake_, true);
    delivery_.join();
    // Deleting the participant deletes its readers, writers and the waitset.
    dds_delete(participant_);
    dds_delete(domain_);
  }

 private:
  // The delivery thread: waits for frames on every reader until stop().
  void deliver() {
    dds_attach_t ready[kTakeBatch];
    while (!stopping_) {
      const dds_return_t count = dds_waitset_wait(waitset_, ready, kTakeBatch, DDS_INFINITY);
      for (dds_return_t i = 0; i < count && !stopping_; ++i) {
        if (ready[i] != 0) deliverWaiting(*reinterpret_cast<const Reader*>(ready[i]));
      }
    }
  }

  // REQUIRES: mutex_ held.
  dds_entity_t topicFor(const std::string& topic) {
    const auto known = topics_.find(topic);
    if (known != topics_.end()) return known->second;
    const dds_entity_t created = dds_create_topic(participant_, &dova_wire_Frame_desc,
                                                  ddsTopicName(topic).c_str(), nullptr, nullptr);
    if (created < 0) {
      mtrace(ERROR, __FILE__, __LINE__, "topic", false, "cannot create DDS topic %s: %s",
             ddsTopicName(topic).c_str(), dds_strretcode(created));
      return created;
    }
    topics_[topic] = created;
    return created;
  }

  dds_entity_t writerFor(const std::string& topic) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) return 0;
    const auto known = writers_.find(topic);
    if (known != writers_.end()) return known->second;
    const dds_entity_t dds_topic = topicFor(topic);
    if (dds_topic <= 0) return 0;

    dds_qos_t* qos = dds_create_qos();
    dds_qset_reliability(qos, DDS_RELIABILITY_RELIABLE, DDS_SECS(5));
    // Every frame reaches every live reader; a reader that joins later gets
    // the latest frame of each key only.
    dds_qset_history(qos, DDS_HISTORY_KEEP_ALL, 0);
    dds_qset_durability(qos, DDS_DURABILITY_TRANSIENT_LOCAL);
    dds_qset_durability_service(qos, 0, DDS_HISTORY_KEEP_LAST, 1, DDS_LENGTH_UNLIMITED,
                                DDS_LENGTH_UNLIMITED, DDS_LENGTH_UNLIMITED);
    dds_qset_ignorelocal(qos, DDS_IGNORELOCAL_PARTICIPANT);
    const dds_entity_t writer = dds_create_writer(participant_, dds_topic, qos, nullptr);
    dds_delete_qos(qos);
    if (writer < 0) {
      mtrace(ERROR, __FILE__, __LINE__, "send", false, "topic %s: cannot create a writer: %s",
             topic.c_str(), dds_strretcode(writer));
      return 0;
    }
    writers_[topic] = writer;
    return writer;
  }

  const dds_entity_t domain_;
  const dds_entity_t participant_;
  const std::string publisher_;
  const dds_entity_t waitset_;
  const dds_entity_t wake_;  // triggered by stop()
  std::atomic<bool> stopping_{false};
  std::thread delivery_;

  std::mutex mutex_;  // guards everything below
  bool stopped_ = false;
  std::map<std::string, dds_entity_t> topics_;
  std::map<std::string, dds_entity_t> writers_;
  std::vector<std::unique_ptr<Reader>> readers_;  // what the waitset points to
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
    domain = dds_create_domain(domain_number, kLoopbackConfiguration);
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
  return std::make_unique<DdsTransport>(domain, participant, publisher);
}

}  // namespace dova::platform

const char* dova::ddsLoopbackConfiguration() { return platform::kLoopbackConfiguration; }
