#include "imptdata_command.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "dova/filesystem/filesystem.h"
#include "exit_status.h"
#include "korcommon/ImptData.h"
#include "trace_capture.h"

namespace korcommon::cli {
namespace {

constexpr char kUrdfDirectory[] = "/opt/quor/imptdata/urdf/";
constexpr char kNone[] = "(none)";
constexpr char kUnreadable[] = "(unreadable)";

// The shortest text that reads back as exactly `value`, so a printed list can be set again.
std::string exactText(double value) {
  char buffer[32];
  const std::to_chars_result result = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, result.ptr);
}

std::string listText(const std::vector<double>& values) {
  if (values.empty()) return kNone;
  std::string text;
  for (const double value : values) {
    if (!text.empty()) text += ',';
    text += exactText(value);
  }
  return text;
}

// Parses "V1,V2,..." strictly: every element a finite number, nothing else.
std::vector<double> parseList(const std::string& text) {
  std::vector<double> values;
  size_t start = 0;
  for (;;) {
    const size_t comma = text.find(',', start);
    const size_t end = comma == std::string::npos ? text.size() : comma;
    std::string element = text.substr(start, end - start);
    const size_t first = element.find_first_not_of(" \t");
    const size_t last = element.find_last_not_of(" \t");
    element = first == std::string::npos ? std::string() : element.substr(first, last - first + 1);
    double value = 0.0;
    const char* begin = element.data();
    const char* finish = begin + element.size();
    const std::from_chars_result parsed = std::from_chars(begin, finish, value);
    if (element.empty() || parsed.ec != std::errc() || parsed.ptr != finish ||
        !std::isfinite(value)) {
      failWith(kTrouble,
               "not a number: \"" + element + "\" (expected V1,V2,... of finite numbers)");
    }
    values.push_back(value);
    if (comma == std::string::npos) return values;
    start = comma + 1;
  }
}

// One stored value as `show` and `get` print it, or why it could not be read.
struct ReadResult {
  std::string text;
  std::string error;  // empty when read
};

template <typename Read>
ReadResult readValue(const char* what, Read read) {
  TraceCapture reports;
  ReadResult result;
  result.text = read();
  if (!reports.first().empty()) {
    result.error = std::string("cannot read ") + what + ": " + reports.first();
  }
  return result;
}

ReadResult readSerialNumber() {
  return readValue("the serial number", [] {
    const std::string sn = ImptData::getSN();
    return sn.empty() ? std::string(kNone) : sn;
  });
}

ReadResult readJointOffsets() {
  return readValue("the joint offsets", [] { return listText(ImptData::getJointOffset()); });
}

ReadResult readJointLimits() {
  return readValue("the joint limits", [] { return listText(ImptData::getJointLimit()); });
}

// Prints every value it can read, marking the unreadable ones, so that one damaged file
// hides none of the others; then fails naming the first unreadable one.
void runShow() {
  const std::pair<const char*, ReadResult> values[] = {{"serial number: ", readSerialNumber()},
                                                       {"joint offsets: ", readJointOffsets()},
                                                       {"joint limits:  ", readJointLimits()}};
  std::string first_error;
  for (const auto& [label, value] : values) {
    std::cout << label << (value.error.empty() ? value.text : kUnreadable) << '\n';
    if (first_error.empty()) first_error = value.error;
  }
  // Showing must not create the directory, unlike "get urdf-dir".
  const bool has_urdf = std::filesystem::is_directory(kUrdfDirectory);
  std::cout << "urdf dir:      " << (has_urdf ? kUrdfDirectory : kNone) << '\n';
  if (!first_error.empty()) failWith(kTrouble, first_error);
}

// The reason `sn` cannot be a serial number, or empty when it can: it stands in every
// envelope's accid and in one-line reports, so it needs a visible character and one line.
std::string serialNumberProblem(const std::string& sn) {
  if (sn.empty()) return "the serial number must not be empty";
  if (sn.find_first_of("\n\r") != std::string::npos) {
    return "the serial number must not contain a line break";
  }
  if (sn.find_first_not_of(" \t\v\f") == std::string::npos) {
    return "the serial number must not be blank";
  }
  return std::string();
}

void printOrFail(const ReadResult& value) {
  if (!value.error.empty()) failWith(kTrouble, value.error);
  std::cout << value.text << '\n';
}

void runGet(const std::string& item) {
  if (item == "sn") {
    printOrFail(readSerialNumber());
  } else if (item == "joint-offset") {
    printOrFail(readJointOffsets());
  } else if (item == "joint-limit") {
    printOrFail(readJointLimits());
  } else {
    try {
      std::cout << ImptData::getUrdfDir() << '\n';
    } catch (const dova::filesystem::filesystem_error& error) {
      failWith(kTrouble, std::string("cannot create the urdf directory: ") + error.what());
    }
  }
}

void runSet(const std::string& item, const std::string& value) {
  bool stored = false;
  TraceCapture reports;
  if (item == "sn") {
    const std::string problem = serialNumberProblem(value);
    if (!problem.empty()) failWith(kTrouble, problem);
    stored = ImptData::setSN(value);
  } else {
    const std::vector<double> values = parseList(value);
    stored =
        item == "joint-offset" ? ImptData::setJointOffset(values) : ImptData::setJointLimit(values);
  }
  if (!reports.first().empty()) failWith(kTrouble, "cannot store " + item + ": " + reports.first());
  if (!stored) failWith(kTrouble, "cannot store " + item);
}

}  // namespace

void addImptdataCommand(CLI::App& app) {
  CLI::App* imptdata = app.add_subcommand(
      "imptdata",
      "Read and write this robot's serial number and calibration in /opt/quor/imptdata");
  imptdata->require_subcommand(1);
  imptdata->footer(
      "Examples:\n"
      "  korcommon imptdata show\n"
      "  korcommon imptdata set sn RB-0001\n"
      "  korcommon imptdata get joint-offset");

  CLI::App* show =
      imptdata->add_subcommand("show", "Print every stored value; (none) where absent");
  show->footer(
      "A value whose file cannot be read shows as (unreadable); the others are still\n"
      "printed, and the reason follows on standard error.\n"
      "\n"
      "Exit status: 0 printed; 2 bad usage, or a value cannot be read.\n"
      "\n"
      "Examples:\n"
      "  korcommon imptdata show");
  show->callback(runShow);

  auto get_item = std::make_shared<std::string>();
  CLI::App* get = imptdata->add_subcommand("get", "Print one stored value; (none) when absent");
  get->add_option("ITEM", *get_item, "What to print")
      ->required()
      ->check(CLI::IsMember({"sn", "joint-offset", "joint-limit", "urdf-dir"}));
  get->footer(
      "Lists print as V1,V2,... with every digit needed to read back the same doubles.\n"
      "urdf-dir creates the directory when it is missing.\n"
      "\n"
      "Exit status: 0 printed; 2 bad usage, or the value cannot be read.\n"
      "\n"
      "Examples:\n"
      "  korcommon imptdata get sn\n"
      "  korcommon imptdata get joint-limit");
  get->callback([get_item] { runGet(*get_item); });

  auto set_item = std::make_shared<std::string>();
  auto set_value = std::make_shared<std::string>();
  CLI::App* set = imptdata->add_subcommand("set", "Store one value, replacing the old one");
  set->add_option("ITEM", *set_item, "What to store")
      ->required()
      ->check(CLI::IsMember({"sn", "joint-offset", "joint-limit"}));
  set->add_option("VALUE", *set_value, "The serial number, or a list V1,V2,... of numbers")
      ->required()
      ->allow_extra_args(false);
  set->footer(
      "The file is replaced in one step: a crash leaves the old or the new value. The\n"
      "directory is then opened to every user (chmod -R 777 /opt/quor/imptdata).\n"
      "\n"
      "A serial number needs a visible character and no line break.\n"
      "\n"
      "Exit status: 0 stored; 2 bad usage, a value that is not a list of finite numbers,\n"
      "an unusable serial number, or storage that cannot be written. Nothing changes on\n"
      "failure.\n"
      "\n"
      "Examples:\n"
      "  korcommon imptdata set sn RB-0001\n"
      "  korcommon imptdata set joint-offset 0.1,-1.5,0.002");
  set->callback([set_item, set_value] { runSet(*set_item, *set_value); });
}

}  // namespace korcommon::cli
