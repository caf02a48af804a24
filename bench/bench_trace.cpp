// The trace logger beside spdlog, in one binary so the ratios are measured in
// one run:
// - a call below the configured level, which a robot's control loop makes
//   all the time and must cost next to nothing;
// - a call that passes, with the middleware up but nobody subscribed and the
//   screen off: formatting plus building and handing over the record;
// - spdlog filtering the same call, and rendering it with its full default
//   pattern into a sink that discards the text;
// - vsnprintf of the same message, the floor of any printf-style logger.
// Each runs five times; the medians are reported, and so is spdlog's time
// over ours for the passing and the filtered call, in real time and, steadier
// on a loaded machine, in CPU time.
#include <benchmark/benchmark.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "dova/init.h"
#include "korcommon/log.h"
#include "ratio_reporter.h"

namespace {

constexpr int kDebug = 1;
constexpr int kInfo = 2;

// Renders every message with the sink's formatter (the logger's full
// pattern) and throws the text away. spdlog's own null sink skips the
// formatting, which would compare our whole call with none of its work.
class DiscardingSink : public spdlog::sinks::base_sink<std::mutex> {
 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    spdlog::memory_buf_t rendered;
    formatter_->format(message, rendered);
    benchmark::DoNotOptimize(rendered.data());
  }
  void flush_() override {}
};

std::shared_ptr<spdlog::logger> makeSpdlogLogger(spdlog::level::level_enum level) {
  auto logger = std::make_shared<spdlog::logger>("bench", std::make_shared<DiscardingSink>());
  logger->set_level(level);
  return logger;
}

void BM_TraceFiltered(benchmark::State& state) {
  korcommon::set_log_level(3);  // WARN and up
  for (auto _ : state) {
    korcommon::mtrace(kDebug, __FILE__, __LINE__, "control", "joint %d temperature %.1f C", 3,
                      71.5);
  }
}

void BM_SpdlogFiltered(benchmark::State& state) {
  const auto logger = makeSpdlogLogger(spdlog::level::warn);
  for (auto _ : state) {
    logger->log(spdlog::source_loc{__FILE__, __LINE__, "control"}, spdlog::level::debug,
                "joint {} temperature {:.1f} C", 3, 71.5);
  }
}

void BM_TracePassing(benchmark::State& state) {
  korcommon::set_log_level(2);
  for (auto _ : state) {
    korcommon::mtrace(kInfo, __FILE__, __LINE__, "control", "joint %d temperature %.1f C", 3, 71.5);
  }
}

void BM_SpdlogRendered(benchmark::State& state) {
  const auto logger = makeSpdlogLogger(spdlog::level::info);
  for (auto _ : state) {
    logger->log(spdlog::source_loc{__FILE__, __LINE__, "control"}, spdlog::level::info,
                "joint {} temperature {:.1f} C", 3, 71.5);
  }
}

__attribute__((format(printf, 3, 4))) int formatInto(char* buffer, size_t size, const char* format,
                                                     ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  return length;
}

void BM_Vsnprintf(benchmark::State& state) {
  char buffer[256];
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        formatInto(buffer, sizeof buffer, "joint %d temperature %.1f C", 3, 71.5));
    benchmark::ClobberMemory();
  }
}

// Repeated, so that one slice of time stolen by another process does not
// decide the figure; the median of the repetitions is the one compared.
constexpr int kRepetitions = 5;

BENCHMARK(BM_TraceFiltered)->Repetitions(kRepetitions);
BENCHMARK(BM_SpdlogFiltered)->Repetitions(kRepetitions);
BENCHMARK(BM_TracePassing)->Repetitions(kRepetitions);
BENCHMARK(BM_SpdlogRendered)->Repetitions(kRepetitions);
BENCHMARK(BM_Vsnprintf)->Repetitions(kRepetitions);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  // A running node that nobody subscribes to, with the screen line off, as
  // on a robot where no tool listens to the log.
  unsetenv("DOVA_LOG_SCREEN");
  if (!dova::init("bench_node")) return 1;
  RatioReporter reporter({{"passing call", "BM_SpdlogRendered", "BM_TracePassing"},
                          {"filtered call", "BM_SpdlogFiltered", "BM_TraceFiltered"}});
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  dova::shutdown();
  return 0;
}
