// Binary encoding and decoding of the two messages the library sends, beside
// protobuf encoding the same fields, in one binary so the ratio is measured in
// one run. Both sides reuse their buffers and decode into a reused message,
// as a transport does.
#include <benchmark/benchmark.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bench_msgs.pb.h"
#include "dova/msgs/diagnostic_msgs/DiagnosticValue.h"
#include "dova/msgs/dova_msgs/Log.h"
#include "dova/msgs/frame_check.h"
#include "dova/time.h"

namespace {

using dova::diagnostic_msgs::DiagnosticValue;
using dova::dova_msgs::Log;

DiagnosticValue typicalReport() {
  DiagnosticValue value;
  value.header.stamp = dova::Time::now();
  value.header.frame_id = "base";
  value.level = DiagnosticValue::WARN;
  value.name = "motor_temp";
  value.code = 3;
  value.message = "temperature 71.5 C above limit";
  return value;
}

Log typicalRecord() {
  Log record;
  record.header.stamp = dova::Time::now();
  record.level = Log::WARN;
  record.name = "leg_controller";
  record.msg = "joint 3 torque 41.7 Nm is above the planned limit of 40.0 Nm";
  record.file = "gait.cpp";
  record.function = "plan";
  record.line = 120;
  record.pid = static_cast<uint64_t>(getpid());
  record.tid = static_cast<uint64_t>(syscall(SYS_gettid));
  return record;
}

void fillHeader(const dova::std_msgs::Header& from, korcommon::bench::Header& to) {
  to.set_seq(from.seq);
  to.mutable_stamp()->set_sec(from.stamp.sec);
  to.mutable_stamp()->set_nsec(from.stamp.nsec);
  to.set_frame_id(from.frame_id);
}

korcommon::bench::DiagnosticValue toProtobuf(const DiagnosticValue& value) {
  korcommon::bench::DiagnosticValue proto;
  fillHeader(value.header, *proto.mutable_header());
  proto.set_level(value.level);
  proto.set_name(value.name);
  proto.set_code(value.code);
  proto.set_message(value.message);
  return proto;
}

korcommon::bench::Log toProtobuf(const Log& record) {
  korcommon::bench::Log proto;
  fillHeader(record.header, *proto.mutable_header());
  proto.set_level(record.level);
  proto.set_name(record.name);
  proto.set_msg(record.msg);
  proto.set_file(record.file);
  proto.set_function(record.function);
  proto.set_line(record.line);
  proto.set_pid(record.pid);
  proto.set_tid(record.tid);
  return proto;
}

// Sizes the buffer once; every iteration asks the length again and encodes,
// as a publisher does per message.
template <typename MessageT>
void serializeLoop(benchmark::State& state, const MessageT& message) {
  std::vector<uint8_t> buffer(static_cast<size_t>(message.serializedLength()));
  for (auto _ : state) {
    const int length = message.serializedLength();
    benchmark::DoNotOptimize(message.serialize(buffer.data(), length));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(buffer.size()));
}

template <typename MessageT>
void deserializeLoop(benchmark::State& state, const MessageT& message) {
  std::vector<uint8_t> buffer(static_cast<size_t>(message.serializedLength()));
  message.serialize(buffer.data(), static_cast<int>(buffer.size()));
  MessageT decoded;
  for (auto _ : state) {
    benchmark::DoNotOptimize(decoded.deserialize(buffer.data(), static_cast<int>(buffer.size())));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(buffer.size()));
}

template <typename ProtoT>
void protobufSerializeLoop(benchmark::State& state, const ProtoT& proto) {
  std::vector<uint8_t> buffer(proto.ByteSizeLong());
  for (auto _ : state) {
    // SerializeToArray sizes the message itself, as serializedLength() does for ours.
    benchmark::DoNotOptimize(
        proto.SerializeToArray(buffer.data(), static_cast<int>(buffer.size())));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(buffer.size()));
}

template <typename ProtoT>
void protobufParseLoop(benchmark::State& state, const ProtoT& proto) {
  const std::string encoded = proto.SerializeAsString();
  ProtoT decoded;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        decoded.ParseFromArray(encoded.data(), static_cast<int>(encoded.size())));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(encoded.size()));
}

// The transport's check of an incoming frame before it is decoded.
template <typename MessageT>
void frameCheckLoop(benchmark::State& state, const std::vector<uint8_t>& message) {
  std::vector<uint8_t> frame(dova::msgs::kFramePrefixSize, 0);
  frame.insert(frame.end(), message.begin(), message.end());
  for (auto _ : state) {
    benchmark::DoNotOptimize(dova::msgs::isWellFormedFrame<MessageT>(frame.data(), frame.size()));
  }
}

template <typename MessageT>
std::vector<uint8_t> encoded(const MessageT& message) {
  std::vector<uint8_t> bytes(static_cast<size_t>(message.serializedLength()));
  message.serialize(bytes.data(), static_cast<int>(bytes.size()));
  return bytes;
}

void BM_DiagnosticValueSerialize(benchmark::State& state) { serializeLoop(state, typicalReport()); }
void BM_ProtobufDiagnosticValueSerialize(benchmark::State& state) {
  protobufSerializeLoop(state, toProtobuf(typicalReport()));
}
void BM_DiagnosticValueDeserialize(benchmark::State& state) {
  deserializeLoop(state, typicalReport());
}
void BM_ProtobufDiagnosticValueParse(benchmark::State& state) {
  protobufParseLoop(state, toProtobuf(typicalReport()));
}
void BM_LogSerialize(benchmark::State& state) { serializeLoop(state, typicalRecord()); }
void BM_ProtobufLogSerialize(benchmark::State& state) {
  protobufSerializeLoop(state, toProtobuf(typicalRecord()));
}
void BM_LogDeserialize(benchmark::State& state) { deserializeLoop(state, typicalRecord()); }
void BM_ProtobufLogParse(benchmark::State& state) {
  protobufParseLoop(state, toProtobuf(typicalRecord()));
}
void BM_FrameCheckDiagnosticValue(benchmark::State& state) {
  frameCheckLoop<DiagnosticValue>(state, encoded(typicalReport()));
}
void BM_FrameCheckLog(benchmark::State& state) {
  frameCheckLoop<Log>(state, encoded(typicalRecord()));
}

BENCHMARK(BM_DiagnosticValueSerialize);
BENCHMARK(BM_ProtobufDiagnosticValueSerialize);
BENCHMARK(BM_DiagnosticValueDeserialize);
BENCHMARK(BM_ProtobufDiagnosticValueParse);
BENCHMARK(BM_LogSerialize);
BENCHMARK(BM_ProtobufLogSerialize);
BENCHMARK(BM_LogDeserialize);
BENCHMARK(BM_ProtobufLogParse);
BENCHMARK(BM_FrameCheckDiagnosticValue);
BENCHMARK(BM_FrameCheckLog);

}  // namespace

BENCHMARK_MAIN();
