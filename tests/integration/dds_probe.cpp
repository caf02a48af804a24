// A small node for the multi-process tests, on the DDS transport of DOVA_DOMAIN_ID.
//
//   dds_probe publish NODE COUNT NAMES SUBSCRIBERS
//     waits until SUBSCRIBERS other processes subscribe to /diagnostics_value, publishes
//     COUNT reports named NODE/r<i % NAMES> with code i, prints "published COUNT" and
//     stays until stopped.
//   dds_probe raw NODE KIND...
//     writes hand-made samples straight through Cyclone, one per KIND: good, truncated,
//     overlong, short, md5 (a good frame under another checksum); prints "sent N".
//   dds_probe echo NODE
//     delivers in mode 0, on the transport's thread, and answers every report of another
//     process from the callback with one named echo/<its name>, same code; prints "ready".
//   dds_probe trace NODE MESSAGE
//     logs MESSAGE at ERROR through korcommon::mtrace, prints "traced at line N" and
//     stays until stopped, so its record stays available to processes that join later.
// A probe stops on SIGINT or SIGTERM, ending with status 0, or by itself after 60 s.
#include <dds/dds.h>
#include <dova/init.h>
#include <dova/msgs/diagnostic_msgs/DiagnosticValue.h>
#include <dova/msgs/frame_check.h>
#include <dova/msgs/topics.h>
#include <dova/options.h>
#include <korcommon/Diagnostics.h>
#include <korcommon/log.h>
#include <pthread.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "frame.h"
#include "threads.h"

namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using dova::msgs::kFramePrefixSize;

int raw(const std::string& node, const std::vector<std::string>& kinds) {
  const char* domain_text = std::getenv("DOVA_DOMAIN_ID");
  const auto domain = static_cast<dds_domainid_t>(domain_text ? std::atoi(domain_text) : 0);
  // The same loopback-only configuration the platform uses.
  if (dds_create_domain(domain, dova::ddsLoopbackConfiguration()) < 0) return 2;
  const dds_entity_t participant = dds_create_participant(domain, nullptr, nullptr);
  const dds_entity_t topic = dds_create_topic(participant, &dova_wire_Frame_desc,
                                              "dova/diagnostics_value", nullptr, nullptr);
  dds_qos_t* qos = dds_create_qos();
  dds_qset_reliability(qos, DDS_RELIABILITY_RELIABLE, DDS_SECS(5));
  dds_qset_history(qos, DDS_HISTORY_KEEP_ALL, 0);
  dds_qset_durability(qos, DDS_DURABILITY_TRANSIENT_LOCAL);
  const dds_entity_t writer = dds_create_writer(participant, topic, qos, nullptr);
  dds_delete_qos(qos);
  dds_publication_matched_status_t matched{};
  if (writer < 0 || !korcommon::testing::pollUntil([&] {
        dds_get_publication_matched_status(writer, &matched);
        return matched.current_count > 0;
      })) {
    return 3;
  }
  for (size_t i = 0; i < kinds.size(); ++i) {
    DiagnosticValue value;
    value.name = "raw/" + kinds[i];
    value.code = static_cast<int>(i);
    // `node` in the prefix and the encoding behind it, damaged as the kind says.
    std::vector<uint8_t> frame(kFramePrefixSize + static_cast<size_t>(value.serializedLength()));
    std::memcpy(frame.data(), node.data(), std::min(node.size(), kFramePrefixSize));
    value.serialize(frame.data() + kFramePrefixSize, value.serializedLength());
    const uint32_t huge = 0xFFFFFFF0u;  // a name length far beyond the bytes that follow
    if (kinds[i] == "truncated") frame.pop_back();
    if (kinds[i] == "overlong") std::memcpy(&frame[kFramePrefixSize + 20], &huge, sizeof huge);
    if (kinds[i] == "short") frame.resize(10);
    std::string md5 = kinds[i] == "md5" ? std::string(32, '0') : value.getMD5();
    dova_wire_Frame sample{};
    sample.publisher = const_cast<char*>(node.c_str());
    sample.key = value.name.data();
    sample.md5 = md5.data();
    sample.data._buffer = frame.data();
    sample.data._length = sample.data._maximum = static_cast<uint32_t>(frame.size());
    if (dds_write(writer, &sample) != DDS_RETCODE_OK) return 4;
  }
  dds_wait_for_acks(writer, DDS_SECS(5));
  std::printf("sent %zu\n", kinds.size());
  std::fflush(stdout);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  dds_delete(participant);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() >= 3 && args[0] == "raw") return raw(args[1], {args.begin() + 2, args.end()});
  const bool echo = args.size() == 2 && args[0] == "echo";
  const bool publish = args.size() == 5 && args[0] == "publish";
  const bool trace = args.size() == 3 && args[0] == "trace";
  if (!echo && !publish && !trace) {
    std::fprintf(stderr, "usage: see the comment at the top of dds_probe.cpp\n");
    return 2;
  }
  // Blocked before the middleware starts its threads, so that they inherit the mask and the
  // stop signals wait for sigtimedwait.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);
  if (!dova::init(args[1], dova::Options{"dds", echo ? 0 : 1, true, -1})) return 2;
  dova::Subscriber<DiagnosticValue> echoing;  // registered until the shutdown below
  if (echo) {
    echoing.setTopic(dova::msgs::kDiagnosticsTopic);
    echoing.callback_kind = 0;
    echoing.callback_ref = [node = args[1]](const DiagnosticValue& value) {
      if (value.caller_id != node) {
        korcommon::Diagnostics::publish("echo/" + value.name, value.code, 0, value.message);
      }
    };
    if (!dova::nh()->subscribe(echoing, false, true, -1)) return 3;
    std::printf("ready\n");
  } else if (publish) {
    const long count = std::atol(args[2].c_str());
    if (!korcommon::testing::pollUntil([&] {
          return dova::remoteSubscriberCount(dova::msgs::kDiagnosticsTopic) >= std::stoi(args[4]);
        })) {
      return 3;
    }
    for (long i = 0; i < count; ++i) {
      korcommon::Diagnostics::publish(args[1] + "/r" + std::to_string(i % std::stol(args[3])),
                                      static_cast<int>(i), 0, "seq " + std::to_string(i));
    }
    std::printf("published %ld\n", count);
  } else {
    const int line = __LINE__ + 1;
    korcommon::mtrace(8, __FILE__, line, "main", "%s", args[2].c_str());
    std::printf("traced at line %d\n", line);
  }
  std::fflush(stdout);
  const timespec limit{60, 0};
  sigtimedwait(&stop, nullptr, &limit);
  dova::shutdown();
  return 0;
}
