/* Compiled as C11 and, through header_compiles.cpp, as C++20: the header needs nothing before it
 * and its layout assertions hold in both languages. */
#include "zym/plugin.h"

size_t zym_header_probe_bytes(void);
size_t zym_header_probe_bytes(void) {
  return sizeof(ZYMRuntimeProbe);
}
