// An environment variable for the length of a test.
#pragma once

#include <stdlib.h>

namespace kel::test {

// Set from construction to destruction, unset afterwards.
class ScopedEnv {
 public:
  ScopedEnv(const char* variable, const char* value) : name(variable) {
    setenv(variable, value, /*overwrite=*/1);
  }
  ~ScopedEnv() { unsetenv(name); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* name;
};

}  // namespace kel::test
