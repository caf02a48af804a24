#include "imptdata_command.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "dova/filesystem/filesystem.h"
#include "exit_status.h"
#include "korcommon/ImptData.h"
#include "trace_capture.h"

namespace korcommon::cli {
namespace {

constexpr char kUrdfDirectory[] = "/opt/quor/imptdata/urdf/";
constexpr char kNone[] = "(none)";

// Ends the command with status 2 when the store reported a failure while `reports` lived.
void failIfReported(const TraceCapture& reports, const std::string& what) {
  if (!reports.first().empty()) failWith(kTrouble, what + ": " + reports.first());
}

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

std::vector<double> readList(const char* what, std::vector<double> (*getter)()) {
  TraceCapture reports;
  std::vector<double> values = getter();
  failIfReported(reports, std::string("cannot read ") + what);
  return values;
}

std::string readSerialNumber() {
  TraceCapture reports;
  std::string sn = ImptData::getSN();
  failIfReported(reports, "cannot read the serial number");
  return sn;
}

void runShow() {
  const std::string sn = readSerialNumber();
  const std::vector<double> offsets = readList("the joint offsets", &ImptData::getJointOffset);
  const std::vector<double> limits = readList("the joint limits", &ImptData::getJointLimit);
  // Showing must not create the directory, unlike "get urdf-dir".
  const bool has_urdf = std::filesystem::is_directory(kUrdfDirectory);
  std::cout << "serial number: " << (sn.empty() ? kNone : sn) << '\n'
            << "joint offsets: " << listText(offsets) << '\n'
            << "joint limits:  " << listText(limits) << '\n'
            << "urdf dir:      " << (has_urdf ? kUrdfDirectory : kNone) << '\n';
}

void runGet(const std::string& item) {
  if (item == "sn") {
    const std::string sn = readSerialNumber();
    std::cout << (sn.empty() ? kNone : sn) << '\n';
  } else if (item == "joint-offset") {
    std::cout << listText(readList("the joint offsets", &ImptData::getJointOffset)) << '\n';
  } else if (item == "joint-limit") {
    std::cout << listText(readList("the joint limits", &ImptData::getJointLimit)) << '\n';
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
    if (value.empty()) failWith(kTrouble, "the serial number must not be empty");
    stored = ImptData::setSN(value);
  } else {
    const std::vector<double> values = parseList(value);
    stored =
        item == "joint-offset" ? ImptData::setJointOffset(values) : ImptData::setJointLimit(values);
  }
  failIfReported(reports, "cannot store " + item);
  if (!stored) failWith(kTrouble, "cannot store " + item);
}

}  // namespace

void addImptdataCommand(CLI::App& app) {
  CLI::App* imptdata = app.add_subcommand(
      "imptdata",
      "Read and write this robot's serial number and calibration in /opt/quor/imptdata");
  imptdata->require_subcommand(1);

  imptdata->add_subcommand("show", "Print every stored value; (none) where absent")
      ->callback(runShow);

  auto get_item = std::make_shared<std::string>();
  CLI::App* get = imptdata->add_subcommand("get", "Print one stored value; (none) when absent");
  get->add_option("ITEM", *get_item, "What to print")
      ->required()
      ->check(CLI::IsMember({"sn", "joint-offset", "joint-limit", "urdf-dir"}));
  get->footer(
      "Lists print as V1,V2,... with every digit needed to read back the same doubles.\n"
      "urdf-dir creates the directory when it is missing.\n"
      "\n"
      "Exit status: 0 printed; 2 bad usage, or the value cannot be read.");
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
      "Exit status: 0 stored; 2 bad usage, a value that is not a list of finite numbers,\n"
      "an empty value, or storage that cannot be written. Nothing changes on failure.");
  set->callback([set_item, set_value] { runSet(*set_item, *set_value); });
}

}  // namespace korcommon::cli
