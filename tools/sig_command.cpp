#include "sig_command.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
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
  long timestamp = 0;
  bool json_data = false;
  CLI::Option* guid_option = nullptr;
  CLI::Option* timestamp_option = nullptr;
};

// The createSigString overload that matches the options given.
template <typename Data>
std::string makeEnvelopeText(const MakeArguments& arguments, const Data& data) {
  const bool has_guid = arguments.guid_option->count() > 0;
  const bool has_timestamp = arguments.timestamp_option->count() > 0;
  if (has_guid && has_timestamp) {
    return createSigString(arguments.title, arguments.guid, arguments.timestamp, data);
  }
  if (has_guid) return createSigString(arguments.title, arguments.guid, data);
  if (has_timestamp) return createSigString(arguments.title, arguments.timestamp, data);
  return createSigString(arguments.title, data);
}

void runMake(const MakeArguments& arguments) {
  if (!arguments.json_data) {
    std::cout << makeEnvelopeText(arguments, arguments.data) << '\n';
    return;
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
          ->type_name("MS");
  make->add_flag("--json-data", arguments->json_data,
                 "DATA is a JSON object, nested as one instead of stored as a string");
  make->footer(
      "The accid is this robot's serial number (\"\" when it has none); a guid or timestamp\n"
      "not given is generated.\n"
      "\n"
      "Exit status: 0 printed; 2 bad usage, or DATA not a JSON object with --json-data.");
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
  if (std::ferror(stream)) {
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
      "opened or read, or its text is not one JSON object (nothing is printed then).");
  inspect->callback([file] { runInspect(*file); });
}

}  // namespace

void addSigCommand(CLI::App& app) {
  CLI::App* sig = app.add_subcommand("sig", "Make and inspect signal envelopes");
  sig->require_subcommand(1);
  addMake(*sig);
  addInspect(*sig);
}

}  // namespace korcommon::cli
