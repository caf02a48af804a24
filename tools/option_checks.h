#ifndef KORCOMMON_TOOLS_OPTION_CHECKS_H_
#define KORCOMMON_TOOLS_OPTION_CHECKS_H_

#include <CLI/CLI.hpp>

namespace korcommon::cli {

// Accepts what parseDiagLevel() reads.
CLI::Validator diagLevelValidator();

// Accepts an ECMAScript regular expression.
CLI::Validator regexValidator();

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_OPTION_CHECKS_H_
