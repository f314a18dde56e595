#include "zym/plugin.h"

#include <gtest/gtest.h>

#include <cstddef>

extern "C" size_t zym_header_probe_bytes(void);

namespace {

TEST(PublicHeader, HasOneLayoutInBothLanguages) {
  EXPECT_EQ(sizeof(ZYMRuntimeProbe), zym_header_probe_bytes());
}

}  // namespace
