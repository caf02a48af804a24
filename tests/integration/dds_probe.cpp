// A small node for the multi-process tests of the DDS transport.
//
//   dds_probe publish NODE COUNT NAMES SUBSCRIBERS LINGER_MS
//     waits until SUBSCRIBERS other processes subscribe to /diagnostics_value,
//     publishes COUNT reports named NODE/r<i % NAMES> with code i, prints
//     "published COUNT", then stays LINGER_MS (-1: until killed).
//   dds_probe raw NODE KIND...
//     writes hand-made samples straight through Cyclone, one per KIND:
//     good, truncated, overlong, short, md5 (a good frame under another checksum).
//
// The DDS domain comes from DOVA_DOMAIN_ID, like any dova node.
#include <dds/dds.h>
#include <dova/init.h>
#include <dova/msgs/diagnostic_msgs/DiagnosticValue.h>
#include <dova/msgs/frame_check.h>
#include <dova/msgs/topics.h>
#include <korcommon/Diagnostics.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "dds_transport.h"
#include "frame.h"

namespace {

using Clock = std::chrono::steady_clock;

bool waitForSubscribers(const std::string& topic, int wanted) {
  const auto deadline = Clock::now() + std::chrono::seconds(30);
  while (dova::remoteSubscriberCount(topic) < wanted) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

void linger(long milliseconds) {
  if (milliseconds < 0) {
    for (;;) std::this_thread::sleep_for(std::chrono::seconds(1));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

int publish(const std::string& node, long count, long names, int subscribers, long linger_ms) {
  if (!dova::init(node, dova::Options{"dds", 1, true, -1})) return 2;
  if (!waitForSubscribers(dova::msgs::kDiagnosticsTopic, subscribers)) return 3;
  for (long i = 0; i < count; ++i) {
    korcommon::Diagnostics::publish(node + "/r" + std::to_string(i % names), static_cast<int>(i), 0,
                                    "seq " + std::to_string(i));
  }
  std::printf("published %ld\n", count);
  std::fflush(stdout);
  linger(linger_ms);
  dova::shutdown();
  return 0;
}

std::vector<uint8_t> frameOf(const std::string& node,
                             const dova::diagnostic_msgs::DiagnosticValue& value) {
  std::vector<uint8_t> frame(dova::msgs::kFramePrefixSize +
                             static_cast<size_t>(value.serializedLength()));
  std::memcpy(frame.data(), node.data(), std::min(node.size(), dova::msgs::kFramePrefixSize));
  value.serialize(frame.data() + dova::msgs::kFramePrefixSize, value.serializedLength());
  return frame;
}

int raw(const std::string& node, const std::vector<std::string>& kinds) {
  const char* domain_text = std::getenv("DOVA_DOMAIN_ID");
  const auto domain = static_cast<dds_domainid_t>(domain_text ? std::atoi(domain_text) : 0);
  if (std::getenv("CYCLONEDDS_URI") == nullptr) {
    // The same loopback-only configuration the platform uses.
    if (dds_create_domain(domain, dova::platform::loopbackConfiguration()) < 0) return 2;
  }
  const dds_entity_t participant = dds_create_participant(domain, nullptr, nullptr);
  const dds_entity_t topic = dds_create_topic(participant, &dova_wire_Frame_desc,
                                              "dova/diagnostics_value", nullptr, nullptr);
  dds_qos_t* qos = dds_create_qos();
  dds_qset_reliability(qos, DDS_RELIABILITY_RELIABLE, DDS_SECS(5));
  dds_qset_history(qos, DDS_HISTORY_KEEP_ALL, 0);
  dds_qset_durability(qos, DDS_DURABILITY_TRANSIENT_LOCAL);
  const dds_entity_t writer = dds_create_writer(participant, topic, qos, nullptr);
  dds_delete_qos(qos);
  if (writer < 0) return 2;

  const auto deadline = Clock::now() + std::chrono::seconds(30);
  for (;;) {
    dds_publication_matched_status_t status{};
    dds_get_publication_matched_status(writer, &status);
    if (status.current_count > 0) break;
    if (Clock::now() > deadline) return 3;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }

  const std::string good_md5 = dova::diagnostic_msgs::DiagnosticValue().getMD5();
  for (size_t i = 0; i < kinds.size(); ++i) {
    const std::string& kind = kinds[i];
    dova::diagnostic_msgs::DiagnosticValue value;
    value.name = "raw/" + kind;
    value.code = static_cast<int>(i);
    value.message = "hand-made";
    std::vector<uint8_t> frame = frameOf(node, value);
    std::string md5 = good_md5;
    if (kind == "truncated") {
      frame.pop_back();
    } else if (kind == "overlong") {
      // The name's length prefix claims far more bytes than follow.
      const uint32_t huge = 0xFFFFFFF0u;
      std::memcpy(frame.data() + dova::msgs::kFramePrefixSize + 20, &huge, sizeof huge);
    } else if (kind == "short") {
      frame.resize(10);
    } else if (kind == "md5") {
      md5 = "00000000000000000000000000000000";
    }
    const std::string key = value.name;
    dova_wire_Frame sample{};
    sample.publisher = const_cast<char*>(node.c_str());
    sample.key = const_cast<char*>(key.c_str());
    sample.md5 = const_cast<char*>(md5.c_str());
    sample.data._buffer = frame.data();
    sample.data._length = static_cast<uint32_t>(frame.size());
    sample.data._maximum = static_cast<uint32_t>(frame.size());
    sample.data._release = false;
    if (dds_write(writer, &sample) != DDS_RETCODE_OK) return 4;
  }
  dds_wait_for_acks(writer, DDS_SECS(5));
  std::printf("sent %zu\n", kinds.size());
  std::fflush(stdout);
  linger(500);
  dds_delete(participant);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 6 && args[0] == "publish") {
    return publish(args[1], std::atol(args[2].c_str()), std::atol(args[3].c_str()),
                   std::atoi(args[4].c_str()), std::atol(args[5].c_str()));
  }
  if (args.size() >= 3 && args[0] == "raw") {
    return raw(args[1], std::vector<std::string>(args.begin() + 2, args.end()));
  }
  std::fprintf(stderr,
               "usage: dds_probe publish NODE COUNT NAMES SUBSCRIBERS LINGER_MS\n"
               "       dds_probe raw NODE KIND...\n");
  return 2;
}
