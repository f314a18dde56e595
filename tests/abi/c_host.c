/* A host written in C: loads the plugin given as the first argument, walks its four tables, probes
 * the file given as the second, and prints what it found. Exit status 0 when everything answered.
 */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include "zym/plugin.h"

/* ISO C has no conversion from object to function pointers; POSIX promises that copying works. */
static void resolve(void* library, const char* name, void* function) {
  void* symbol = dlsym(library, name);
  memcpy(function, &symbol, sizeof symbol);
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: c_host PLUGIN MODEL\n");
    return 2;
  }
  void* library = dlopen(argv[1], RTLD_NOW);
  if (library == NULL) {
    fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  ZYMPluginInitFn init = NULL;
  ZYMPluginRuntimesFn runtimes = NULL;
  ZYMPluginRuntimesV2Fn runtimesV2 = NULL;
  ZYMPluginRuntimesV2SFn runtimesV2S = NULL;
  resolve(library, "zym_plugin_init", &init);
  resolve(library, "zym_plugin_runtimes", &runtimes);
  resolve(library, "zym_plugin_runtimes_v2", &runtimesV2);
  resolve(library, "zym_plugin_runtimes_v2s", &runtimesV2S);
  if (!init || !runtimes || !runtimesV2 || !runtimesV2S) return 1;

  const ZYMPluginDescriptor* descriptor = init();
  printf("plugin %s (%u.%u)\n", descriptor->name, descriptor->header0, descriptor->header1);

  uint32_t counts[3] = {0, 0, 0};
  const ZYMRuntimeTable* v1 = runtimes(&counts[0]);
  const ZYMRuntimeTableV2* v2 = runtimesV2(&counts[1]);
  const ZYMRuntimeTableV2S* v2s = runtimesV2S(&counts[2]);
  printf("v1 %s flags %llx, v2 %s flags %llx, v2s %s\n", v1->name, (unsigned long long)v1->flags,
         v2->name, (unsigned long long)v2->flags, v2s->name);
  printf("counts %u %u %u\n", counts[0], counts[1], counts[2]);

  ZYMRuntimeProbe probe;
  memset(&probe, 0xFF, sizeof probe);
  uint32_t status = v2->probe(argv[2], &probe);
  printf("probe status %u score %u architecture '%s' device %s detail '%s'\n", status, probe.score,
         probe.architecture, probe.device, probe.detail);
  return dlclose(library) == 0 ? 0 : 1;
}
