#include "sig_command.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "dova/json/reader.h"
#include "dova/json/writer.h"
#include "exit_status.h"
#include "korcommon/utils.h"

namespace korcommon::cli {
namespace {

struct MakeArguments {
  std::string title;
  std::string data;
  std::string guid;
  std::string timestamp;
  bool json_data = false;
  CLI::Option* guid_option = nullptr;
  CLI::Option* timestamp_option = nullptr;
};

// `text` as a timestamp an envelope is made from: a decimal whole number of milliseconds in
// the signed 64-bit range; nothing for any other text.
std::optional<long> parseTimestamp(const std::string& text) {
  long value = 0;
  const char* end = text.data() + text.size();
  const std::from_chars_result parsed = std::from_chars(text.data(), end, value);
  if (text.empty() || parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
  return value;
}

CLI::Validator timestampValidator() {
  return CLI::Validator(
      [](const std::string& text) {
        if (parseTimestamp(text)) return std::string();
        return "\"" + text + "\" is not a whole number of milliseconds from " +
               std::to_string(std::numeric_limits<long>::min()) + " to " +
               std::to_string(std::numeric_limits<long>::max());
      },
      "");
}

// The createSigString overload that matches the options given.
template <typename Data>
std::string makeEnvelopeText(const MakeArguments& arguments, const Data& data) {
  const bool has_guid = arguments.guid_option->count() > 0;
  const bool has_timestamp = arguments.timestamp_option->count() > 0;
  // Checked while parsing, by timestampValidator().
  const long timestamp = has_timestamp ? *parseTimestamp(arguments.timestamp) : 0;
  if (has_guid && has_timestamp) {
    return createSigString(arguments.title, arguments.guid, timestamp, data);
  }
  if (has_guid) return createSigString(arguments.title, arguments.guid, data);
  if (has_timestamp) return createSigString(arguments.title, timestamp, data);
  return createSigString(arguments.title, data);
}

void runMake(const MakeArguments& arguments) {
  if (!arguments.json_data) {
    std::cout << makeEnvelopeText(arguments, arguments.data) << '\n';
    return;
  }
  // The reader would name the first token that cannot start an object; say what is wanted.
  const size_t first = arguments.data.find_first_not_of(" \t\n\r");
  if (first == std::string::npos || arguments.data[first] != '{') {
    failWith(kTrouble, "--json-data: DATA must be a JSON object");
  }
  dova::json::Object payload;
  std::istringstream stream(arguments.data);
  try {
    dova::json::Reader::Read(payload, stream);
  } catch (const dova::json::Exception& error) {
    failWith(kTrouble, std::string("--json-data: ") + error.what());
  }
  std::cout << makeEnvelopeText(arguments, payload) << '\n';
}

void addMake(CLI::App& sig) {
  auto arguments = std::make_shared<MakeArguments>();
  CLI::App* make = sig.add_subcommand("make", "Print a signal envelope as one line of JSON text");
  make->add_option("TITLE", arguments->title, "What the signal is")->required();
  make->add_option("DATA", arguments->data, "The payload, stored as a JSON string")->required();
  arguments->guid_option = make->add_option("--guid", arguments->guid, "Use this guid");
  arguments->timestamp_option =
      make->add_option("--timestamp", arguments->timestamp, "Use this time, in ms since the epoch")
          ->type_name("MS")
          ->check(timestampValidator());
  make->add_flag("--json-data", arguments->json_data,
                 "DATA is a JSON object, nested as one instead of stored as a string");
  make->footer(
      "The accid is this robot's serial number (\"\" when it has none); a guid or timestamp\n"
      "not given is generated. MS is a whole number from -9223372036854775808 to\n"
      "9223372036854775807 (beyond 2^53 the envelope's number keeps fewer digits).\n"
      "\n"
      "Exit status: 0 printed; 2 bad usage, or DATA not a JSON object with --json-data.\n"
      "\n"
      "Examples:\n"
      "  korcommon sig make walk on > envelope.json\n"
      "  korcommon sig make pose '{\"x\":0.5}' --json-data --guid g-1 --timestamp 1700000000123");
  make->callback([arguments] { runMake(*arguments); });
}

// How the input is named in messages.
std::string inputName(const std::string& file) {
  return file == "-" ? std::string("standard input") : file;
}

std::string readAll(std::FILE* stream, const std::string& file) {
  std::string text;
  char buffer[65536];
  size_t length = 0;
  while ((length = std::fread(buffer, 1, sizeof buffer, stream)) > 0) text.append(buffer, length);
  if (std::ferror(stream) != 0) {
    failWith(kTrouble, "cannot read " + inputName(file) + ": " + std::strerror(errno));
  }
  return text;
}

struct CloseFile {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};

// The whole text of `file`, or of standard input for "-".
std::string readInput(const std::string& file) {
  if (file == "-") return readAll(stdin, file);
  const std::unique_ptr<std::FILE, CloseFile> stream(std::fopen(file.c_str(), "rb"));
  if (!stream) failWith(kTrouble, "cannot open " + file + ": " + std::strerror(errno));
  return readAll(stream.get(), file);
}

// `text` as a JSON string literal, so every value stays on one line and "" shows as such.
std::string quoted(const std::string& text) {
  std::stringstream stream;
  dova::json::Writer::Write(dova::json::UnknownElement(dova::json::String(text)), stream);
  return stream.str();
}

void runInspect(const std::string& file) {
  const std::string text = readInput(file);
  dova::json::Object signal;
  std::istringstream stream(text);
  try {
    dova::json::Reader::Read(signal, stream);
  } catch (const dova::json::Exception& error) {
    failWith(kTrouble, inputName(file) + ": " + error.what());
  }

  const auto presence = [](bool present) { return present ? "present" : "missing"; };
  std::cout << "accid: " << presence(hasSigAccid(signal)) << '\n'
            << "title: " << presence(hasSigTitle(signal)) << '\n'
            << "guid: " << presence(hasSigGuid(signal)) << '\n'
            << "timestamp: " << presence(hasSigTimestamp(signal)) << '\n'
            << "data: " << presence(hasSigData(signal)) << '\n'
            << "accid value: " << quoted(parseSigAccid(text)) << '\n'
            << "title value: " << quoted(parseSigTitle(text)) << '\n'
            << "guid value: " << quoted(parseSigGuid(text)) << '\n'
            << "timestamp value: " << parseSigTimestamp(text) << '\n';
  const bool valid = isSigValid(signal);
  std::cout << (valid ? "valid" : "invalid") << '\n';
  if (!valid) exitWith(kNo);
}

void addInspect(CLI::App& sig) {
  auto file = std::make_shared<std::string>("-");
  CLI::App* inspect = sig.add_subcommand("inspect", "Check a signal envelope and show its members");
  inspect->add_option("FILE", *file, "The envelope's file; - (the default) reads standard input");
  inspect->footer(
      "Prints one line each:\n"
      "  <member>: present|missing  for accid, title, guid, timestamp and data\n"
      "  accid value: \"<text>\"      the accid, title and guid as a receiver reads them,\n"
      "  title value: \"<text>\"      JSON-quoted; \"\" when missing or not a string\n"
      "  guid value: \"<text>\"\n"
      "  timestamp value: <ms>      whole milliseconds; 0 when missing or not a number\n"
      "  valid|invalid              valid when all five members are present\n"
      "\n"
      "Exit status: 0 valid; 1 invalid; 2 bad usage or unreadable input: FILE cannot be\n"
      "opened or read, or its text is not one JSON object (nothing is printed then).\n"
      "\n"
      "Examples:\n"
      "  korcommon sig inspect envelope.json\n"
      "  korcommon sig make walk on | korcommon sig inspect");
  inspect->callback([file] { runInspect(*file); });
}

}  // namespace

void addSigCommand(CLI::App& app) {
  CLI::App* sig = app.add_subcommand("sig", "Make and inspect signal envelopes");
  sig->require_subcommand(1);
  sig->footer(
      "A signal envelope is one JSON object: accid (this robot's serial number), title,\n"
      "guid, timestamp (ms since the epoch) and data.\n"
      "\n"
      "Examples:\n"
      "  korcommon sig make walk on > envelope.json\n"
      "  korcommon sig inspect envelope.json");
  addMake(*sig);
  addInspect(*sig);
}

}  // namespace korcommon::cli
