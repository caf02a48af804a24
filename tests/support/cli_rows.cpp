#include "cli_rows.h"

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <regex>

#include "child_process.h"
#include "dova/json/reader.h"

namespace korcommon::testing {
namespace {

using dova::json::Object;

std::string substituted(std::string value, const std::map<std::string, std::string>& variables) {
  for (const auto& [variable, replacement] : variables) {
    const std::string placeholder = "${" + variable + "}";
    for (size_t at = 0; (at = value.find(placeholder, at)) != std::string::npos;) {
      value.replace(at, placeholder.size(), replacement);
      at += replacement.size();
    }
  }
  return value;
}

std::string text(const dova::json::UnknownElement& element,
                 const std::map<std::string, std::string>& variables) {
  return substituted(static_cast<const dova::json::String&>(element).Value(), variables);
}

std::string text(const Object& row, const char* name,
                 const std::map<std::string, std::string>& variables) {
  const auto member = row.Find(name);
  return member == row.end() ? "" : text(member->element, variables);
}

}  // namespace

void expectText(const std::string& actual, const std::string& expected, const char* what) {
  if (!expected.empty() && expected[0] == '~') {
    EXPECT_TRUE(std::regex_match(actual, std::regex(expected.substr(1))))
        << what << ":\n"
        << actual << "does not match " << expected.substr(1);
  } else {
    EXPECT_EQ(actual, expected) << what;
  }
}

ToolResult runTool(const std::string& program, const std::vector<std::string>& arguments,
                   const std::string& input, std::chrono::milliseconds timeout) {
  ChildProcess tool(program, arguments, input);
  ToolResult result{tool.wait(timeout), "", ""};
  if (!tool.ended()) {
    std::string command = program;
    for (const std::string& argument : arguments) command += " " + argument;
    ADD_FAILURE() << "timed out: " << command << " still ran after " << timeout.count()
                  << " ms and was killed";
  }
  result.out = tool.output();
  result.err = tool.errors();
  return result;
}

std::vector<CliRow> rowsOf(const std::string& file, const std::string& group,
                           const std::map<std::string, std::string>& variables) {
  Object read;
  std::ifstream stream(std::string(KORCOMMON_TEST_DATA_DIR) + "/cli/" + file);
  dova::json::Reader::Read(read, stream);
  const Object& document = read;
  std::vector<CliRow> rows;
  for (const auto& element : static_cast<const dova::json::Array&>(document[group])) {
    const Object& row = element;
    rows.push_back({text(row, "why", variables),
                    {},
                    static_cast<int>(static_cast<const dova::json::Number&>(row["status"]).Value()),
                    text(row, "out", variables),
                    text(row, "err", variables),
                    text(row, "input", variables)});
    for (const auto& argument : static_cast<const dova::json::Array&>(row["args"])) {
      rows.back().args.push_back(text(argument, variables));
    }
  }
  EXPECT_FALSE(rows.empty()) << file << ": no rows in " << group;
  return rows;
}

void expectRows(const std::string& program, const std::vector<CliRow>& rows, bool together) {
  if (!together) {
    for (const CliRow& row : rows) expectRows(program, {row}, true);
    return;
  }
  std::vector<std::unique_ptr<ChildProcess>> tools;
  for (const CliRow& row : rows) {
    tools.push_back(std::make_unique<ChildProcess>(program, row.args, row.input));
  }
  for (size_t i = 0; i < rows.size(); ++i) {
    std::string command = "korcommon";
    for (const std::string& argument : rows[i].args) command += " '" + argument + "'";
    SCOPED_TRACE(rows[i].why + ": " + command);
    EXPECT_EQ(tools[i]->wait(), rows[i].status)
        << (tools[i]->ended() ? "" : "still running; ") << tools[i]->errors();
    expectText(tools[i]->output(), rows[i].out, "standard output");
    expectText(tools[i]->errors(), rows[i].err, "standard error");
  }
}

}  // namespace korcommon::testing
