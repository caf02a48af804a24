#include "man_page.h"

#include <CLI/CLI.hpp>
#include <cctype>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "command_tree.h"

namespace korcommon::cli {
namespace {

// `text` safe inside a roff line: backslashes and hyphens spelled out (so commands copy
// and paste as typed), and a leading dot or quote kept from reading as a request.
std::string roffText(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\\') {
      escaped += "\\e";
    } else if (c == '-') {
      escaped += "\\-";
    } else {
      escaped += c;
    }
  }
  if (!escaped.empty() && (escaped[0] == '.' || escaped[0] == '\'')) escaped.insert(0, "\\&");
  return escaped;
}

// Lines kept as they are written (the help's own layout, examples included).
void writePreformatted(const std::string& text, std::ostream& out) {
  out << ".PP\n.nf\n";
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) out << roffText(line) << '\n';
  out << ".fi\n";
}

void writeOption(const CLI::Option& option, std::ostream& out) {
  std::string names = option.nonpositional() ? option.get_name(false, true) : option.get_name();
  for (size_t comma = names.find(','); comma != std::string::npos;
       comma = names.find(',', comma + 2)) {
    names.replace(comma, 1, ", ");
  }
  out << ".TP\n\\fB" << roffText(names) << "\\fR";
  if (option.nonpositional() && takesValue(option)) {
    out << " \\fI" << roffText(option.get_type_name()) << "\\fR";
  }
  out << '\n' << roffText(option.get_description());
  const std::vector<std::string> choices = optionChoices(option);
  for (size_t index = 0; index < choices.size(); ++index) {
    out << (index == 0 ? ": " : ", ") << "\\fB" << roffText(choices[index]) << "\\fR";
  }
  out << '\n';
}

void writeCommand(const CLI::App& command, std::ostream& out) {
  const std::string path = commandPath(command);
  std::string usage = CLI::Formatter().make_usage(&command, path);
  usage.erase(0, usage.find(path));
  out << ".SS \"" << roffText(path) << "\"\n" << roffText(command.get_description()) << '\n';
  writePreformatted(usage, out);
  for (const CLI::Option* option : visibleOptions(command)) writeOption(*option, out);
  if (!command.get_footer().empty()) writePreformatted(command.get_footer(), out);
  for (const CLI::App* subcommand : subcommandsOf(command)) writeCommand(*subcommand, out);
}

}  // namespace

void writeManPage(const CLI::App& root, const std::string& version, std::ostream& out) {
  const std::string& name = root.get_name();
  std::string summary = root.get_description();
  if (!summary.empty() && summary.back() == '.') summary.pop_back();
  std::string title = name;
  for (char& c : title) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  out << ".TH " << title << R"( 1 "" ")" << roffText(name + ' ' + version) << R"(" "User Commands")"
      << '\n'
      << ".SH NAME\n"
      << roffText(name) << R"( \- )" << roffText(summary) << '\n'
      << ".SH SYNOPSIS\n"
      << ".B " << roffText(name) << "\n.I COMMAND\n[\\fIOPTIONS\\fR] [\\fIARGUMENTS\\fR]\n"
      << ".SH DESCRIPTION\n"
      << roffText(root.get_description()) << '\n';
  for (const CLI::Option* option : visibleOptions(root)) writeOption(*option, out);
  writePreformatted(root.get_footer(), out);
  out << ".SH COMMANDS\n";
  for (const CLI::App* command : subcommandsOf(root)) writeCommand(*command, out);
}

}  // namespace korcommon::cli
