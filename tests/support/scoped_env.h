#ifndef KORCOMMON_TESTS_SUPPORT_SCOPED_ENV_H_
#define KORCOMMON_TESTS_SUPPORT_SCOPED_ENV_H_

#include <cstdlib>
#include <optional>
#include <string>

namespace korcommon::testing {

// Sets (or, with nullopt, removes) one environment variable for a scope and
// puts the previous state back afterwards.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::optional<std::string>& value) : name_(name) {
    if (const char* old = std::getenv(name)) previous_ = old;
    apply(value);
  }
  ~ScopedEnv() { apply(previous_); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  void apply(const std::optional<std::string>& value) {
    value ? setenv(name_, value->c_str(), 1) : unsetenv(name_);
  }

  const char* name_;
  std::optional<std::string> previous_;
};

}  // namespace korcommon::testing

#endif  // KORCOMMON_TESTS_SUPPORT_SCOPED_ENV_H_
