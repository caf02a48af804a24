#include "output_form.h"

#include <CLI/CLI.hpp>

namespace korcommon::cli {

void addOutputForms(CLI::App& command, OutputForm& form, const std::string& json_help) {
  CLI::Option* json = command.add_flag_callback(
      "--json", [&form] { form = OutputForm::kJson; }, json_help);
  command
      .add_flag_callback(
          "--csv", [&form] { form = OutputForm::kCsv; },
          "CSV: a header row, then one row each (RFC 4180 quoting)")
      ->excludes(json);
}

}  // namespace korcommon::cli
