#ifndef DOVA_PLATFORM_RESOLVE_OPTIONS_H_
#define DOVA_PLATFORM_RESOLVE_OPTIONS_H_

#include <string>

#include "dova/options.h"

namespace dova::platform {

// Fills the unset fields of `options` from the environment and the defaults.
// Returns "" when every value is acceptable, else what is wrong.
std::string resolveOptions(Options& options);

}  // namespace dova::platform

#endif  // DOVA_PLATFORM_RESOLVE_OPTIONS_H_
