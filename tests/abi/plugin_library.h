// Loads the built plugin as a host does: dlopen and the public header, nothing else.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include "zym/plugin.h"

namespace testing_abi {

class PluginLibrary {
 public:
  PluginLibrary() {
    // Test programs run side by side and their models are tiny: one thread each unless the caller
    // asks for more. The OpenMP runtime reads this when the library brings it in.
    setenv("OMP_NUM_THREADS", "1", 0);
    library = dlopen(ZYM_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
      ADD_FAILURE() << dlerror();
      return;
    }
    init = resolve<ZYMPluginInitFn>("zym_plugin_init");
    runtimes = resolve<ZYMPluginRuntimesFn>("zym_plugin_runtimes");
    runtimesV2 = resolve<ZYMPluginRuntimesV2Fn>("zym_plugin_runtimes_v2");
    runtimesV2S = resolve<ZYMPluginRuntimesV2SFn>("zym_plugin_runtimes_v2s");
  }
  PluginLibrary(const PluginLibrary&) = delete;
  PluginLibrary& operator=(const PluginLibrary&) = delete;

  ZYMPluginInitFn init = nullptr;
  ZYMPluginRuntimesFn runtimes = nullptr;
  ZYMPluginRuntimesV2Fn runtimesV2 = nullptr;
  ZYMPluginRuntimesV2SFn runtimesV2S = nullptr;

 private:
  template <typename Function>
  Function resolve(const char* name) {
    void* const symbol = dlsym(library, name);
    EXPECT_NE(nullptr, symbol) << name;
    return reinterpret_cast<Function>(symbol);
  }

  void* library = nullptr;  // stays loaded until the process ends, as OpenMP's threads live in it
};

// One load per test program.
inline const PluginLibrary& plugin() {
  static const PluginLibrary library;
  return library;
}

}  // namespace testing_abi
