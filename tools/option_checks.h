#ifndef KORCOMMON_TOOLS_OPTION_CHECKS_H_
#define KORCOMMON_TOOLS_OPTION_CHECKS_H_

#include <CLI/CLI.hpp>

#include "levels.h"

namespace korcommon::cli {

// Checks of option and argument values that say what is wrong in words, e.g.
// "--rate: must be greater than 0, not \"0\"". Each runs on the text as given, before it is
// converted.

// A level of `scale`, by name or number.
CLI::Validator levelValidator(LevelScale scale);

// An ECMAScript regular expression.
CLI::Validator regexValidator();

// A finite decimal number greater than 0 (a number of seconds, a rate).
CLI::Validator greaterThanZero();

// A finite decimal number of 0 or more.
CLI::Validator zeroOrMore();

// A whole number from 1 to the largest int.
CLI::Validator countOfOneOrMore();

// A whole number in the range of int.
CLI::Validator wholeNumber();

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_OPTION_CHECKS_H_
