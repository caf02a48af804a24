#include "cli_rows.h"

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <regex>
#include <utility>

#include "child_process.h"
#include "dova/json/reader.h"

namespace korcommon::testing {

void expectText(const std::string& actual, const std::string& expected, const char* what) {
  if (!expected.empty() && expected[0] == '~') {
    EXPECT_TRUE(std::regex_match(actual, std::regex(expected.substr(1))))
        << what << ":\n"
        << actual << "does not match " << expected.substr(1);
  } else {
    EXPECT_EQ(actual, expected) << what;
  }
}

std::vector<CliRow> rowsOf(const std::string& file, const std::string& group,
                           const std::map<std::string, std::string>& variables) {
  using dova::json::Object;
  const auto text = [&variables](const dova::json::UnknownElement& element) {
    std::string value = static_cast<const dova::json::String&>(element).Value();
    for (const auto& [variable, replacement] : variables) {
      const std::string placeholder = "${" + variable + "}";
      for (size_t at = 0; (at = value.find(placeholder, at)) != std::string::npos;) {
        value.replace(at, placeholder.size(), replacement);
        at += replacement.size();
      }
    }
    return value;
  };
  Object read;
  std::ifstream stream(std::string(KORCOMMON_TEST_DATA_DIR) + "/cli/" + file);
  dova::json::Reader::Read(read, stream);
  std::vector<CliRow> rows;
  for (const auto& element : static_cast<const dova::json::Array&>(std::as_const(read)[group])) {
    const Object& row = element;
    const auto member = [&](const char* name) {
      const auto found = row.Find(name);
      return found == row.end() ? std::string() : text(found->element);
    };
    const int status = static_cast<int>(dova::json::Number(row["status"]).Value());
    rows.push_back({member("why"), {}, status, member("out"), member("err"), member("input")});
    for (const auto& argument : static_cast<const dova::json::Array&>(row["args"])) {
      rows.back().args.push_back(text(argument));
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
    std::string command = program.substr(program.rfind('/') + 1);
    for (const std::string& argument : rows[i].args) command += " '" + argument + "'";
    SCOPED_TRACE(rows[i].why + ": " + command);
    EXPECT_EQ(tools[i]->wait(), rows[i].status)
        << (tools[i]->ended() ? "" : "still running; ") << tools[i]->errors();
    expectText(tools[i]->output(), rows[i].out, "standard output");
    expectText(tools[i]->errors(), rows[i].err, "standard error");
  }
}

}  // namespace korcommon::testing
