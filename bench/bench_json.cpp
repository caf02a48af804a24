// Reading and writing JSON documents with dova::json against nlohmann/json and RapidJSON.
//
// Every benchmark of a document counts that document's source size as its bytes, so the
// bytes/s of the peers compare their times directly. Reading starts from the text in memory
// and ends with the document destroyed; writing starts from a document and ends with the text
// in a std::string. dova::json reads from and writes to streams the caller owns: as a caller
// that reuses them would, each iteration rewinds one input stream over the text, or empties
// one output stream and copies the text out of it.
#include <benchmark/benchmark.h>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>

#include "dova/json/reader.h"
#include "dova/json/writer.h"
#include "ratio_reporter.h"

namespace {

std::string loadDocument(const char* name) {
  const std::string path = std::string(KORCOMMON_BENCH_DATA_DIR) + "/" + name;
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot open " + path);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void countBytes(benchmark::State& state, const std::string& text) {
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

dova::json::Object readDocument(const std::string& text) {
  dova::json::Object document;
  std::istringstream stream(text);
  dova::json::Reader::Read(document, stream);
  return document;
}

void BM_JsonReaderRead(benchmark::State& state, const char* name) {
  const std::string text = loadDocument(name);
  std::istringstream stream(text);
  for ([[maybe_unused]] auto iteration : state) {
    stream.clear();
    stream.seekg(0);
    dova::json::Object document;
    dova::json::Reader::Read(document, stream);
    benchmark::DoNotOptimize(document);
  }
  countBytes(state, text);
}

void BM_JsonWriterWrite(benchmark::State& state, const char* name) {
  const std::string text = loadDocument(name);
  const dova::json::Object document = readDocument(text);
  std::ostringstream stream;
  for ([[maybe_unused]] auto iteration : state) {
    stream.str(std::string());
    dova::json::Writer::Write(document, stream);
    std::string written = stream.str();
    benchmark::DoNotOptimize(written);
  }
  countBytes(state, text);
}

void BM_NlohmannJsonParse(benchmark::State& state, const char* name) {
  const std::string text = loadDocument(name);
  for ([[maybe_unused]] auto iteration : state) {
    nlohmann::json document = nlohmann::json::parse(text);
    benchmark::DoNotOptimize(document);
  }
  countBytes(state, text);
}

// nlohmann/json reading from a stream, as dova::json always does: the like-for-like peer of
// BM_JsonReaderRead, beside its fastest form above.
void BM_NlohmannJsonParseStream(benchmark::State& state, const char* name) {
  const std::string text = loadDocument(name);
  std::istringstream stream(text);
  for ([[maybe_unused]] auto iteration : state) {
    stream.clear();
    stream.seekg(0);
    nlohmann::json document = nlohmann::json::parse(stream);
    benchmark::DoNotOptimize(document);
  }
  countBytes(state, text);
}

void BM_NlohmannJsonDump(benchmark::State& state, const char* name) {
  const std::string text = loadDocument(name);
  const nlohmann::json document = nlohmann::json::parse(text);
  for ([[maybe_unused]] auto iteration : state) {
    std::string written = document.dump();
    benchmark::DoNotOptimize(written);
  }
  countBytes(state, text);
}

void BM_RapidJsonParse(benchmark::State& state, const char* name) {
  const std::string text = loadDocument(name);
  for ([[maybe_unused]] auto iteration : state) {
    rapidjson::Document document;
    document.Parse(text.c_str(), text.size());
    if (document.HasParseError()) {
      state.SkipWithError("RapidJSON could not parse the document");
      break;
    }
    benchmark::DoNotOptimize(document);
  }
  countBytes(state, text);
}

void BM_RapidJsonWrite(benchmark::State& state, const char* name) {
  const std::string text = loadDocument(name);
  rapidjson::Document document;
  document.Parse(text.c_str(), text.size());
  for ([[maybe_unused]] auto iteration : state) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    document.Accept(writer);
    std::string written(buffer.GetString(), buffer.GetSize());
    benchmark::DoNotOptimize(written);
  }
  countBytes(state, text);
}

}  // namespace

// The large document's reading and writing, against nlohmann/json, are repeated so that one
// slice of time taken by another process does not decide the figure; their medians are compared.
constexpr int kRepetitions = 5;

BENCHMARK_CAPTURE(BM_JsonReaderRead, envelope, "envelope.json");
BENCHMARK_CAPTURE(BM_JsonReaderRead, doc100k, "doc100k.json")->Repetitions(kRepetitions);
BENCHMARK_CAPTURE(BM_NlohmannJsonParse, envelope, "envelope.json");
BENCHMARK_CAPTURE(BM_NlohmannJsonParse, doc100k, "doc100k.json")->Repetitions(kRepetitions);
BENCHMARK_CAPTURE(BM_NlohmannJsonParseStream, envelope, "envelope.json");
BENCHMARK_CAPTURE(BM_NlohmannJsonParseStream, doc100k, "doc100k.json");
BENCHMARK_CAPTURE(BM_RapidJsonParse, envelope, "envelope.json");
BENCHMARK_CAPTURE(BM_RapidJsonParse, doc100k, "doc100k.json");
BENCHMARK_CAPTURE(BM_JsonWriterWrite, envelope, "envelope.json");
BENCHMARK_CAPTURE(BM_JsonWriterWrite, doc100k, "doc100k.json")->Repetitions(kRepetitions);
BENCHMARK_CAPTURE(BM_NlohmannJsonDump, envelope, "envelope.json");
BENCHMARK_CAPTURE(BM_NlohmannJsonDump, doc100k, "doc100k.json")->Repetitions(kRepetitions);
BENCHMARK_CAPTURE(BM_RapidJsonWrite, envelope, "envelope.json");
BENCHMARK_CAPTURE(BM_RapidJsonWrite, doc100k, "doc100k.json");

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter(
      {{"read doc100k", "BM_NlohmannJsonParse/doc100k", "BM_JsonReaderRead/doc100k"},
       {"write doc100k", "BM_NlohmannJsonDump/doc100k", "BM_JsonWriterWrite/doc100k"}});
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
