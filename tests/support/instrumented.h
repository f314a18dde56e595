// Whether sanitizers or coverage counters slow this build down many times: the tests that repeat
// one thing over and over then repeat it less often.
#pragma once

namespace kel::test {

#ifdef ZYM_INSTRUMENTED
constexpr bool kInstrumented = true;
#else
constexpr bool kInstrumented = false;
#endif

}  // namespace kel::test
