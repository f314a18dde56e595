// An environment variable for the length of a test.
#pragma once

#include <stdlib.h>

#include <optional>
#include <string>

namespace kel::test {

// Set from construction to destruction; as before afterwards.
class ScopedEnv {
 public:
  ScopedEnv(const char* variable, const char* value) : name(variable) {
    if (const char* set = getenv(variable)) {
      before = set;
    }
    setenv(variable, value, /*overwrite=*/1);
  }
  ~ScopedEnv() {
    if (before) {
      setenv(name, before->c_str(), /*overwrite=*/1);
    } else {
      unsetenv(name);
    }
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* name;
  std::optional<std::string> before;
};

}  // namespace kel::test
