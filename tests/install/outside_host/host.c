/* The smallest host: loads the installed library and prints what it says about itself. */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include <zym/plugin.h>

int main(void) {
  void* library = dlopen(PLUGIN, RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) {
    fprintf(stderr, "%s\n", dlerror());
    return 1;
  }
  /* ISO C has no cast from an object pointer to a function pointer. */
  ZYMPluginInitFn init = NULL;
  void* found = dlsym(library, "zym_plugin_init");
  memcpy(&init, &found, sizeof(init));
  if (init == NULL) return 1;
  printf("%s %u.%u\n", init()->name, init()->header0, init()->header1);
  return 0;
}
