#include <gtest/gtest.h>

#include "tests/abi/plugin_library.h"

namespace {

using testing_abi::plugin;

TEST(Descriptor, HasTheDocumentedValues) {
  const ZYMPluginDescriptor* const descriptor = plugin().init();
  EXPECT_EQ(1u, descriptor->header0);
  EXPECT_EQ(1u, descriptor->header1);
  EXPECT_STREQ("runtime-qwen35", descriptor->name);
  EXPECT_STREQ("Real Qwen3.5 hybrid (GDN+full attn) CPU runtime", descriptor->description);
  for (const void* word : descriptor->reserved)
    EXPECT_EQ(nullptr, word);
}

TEST(RuntimeTable, HasTheDocumentedValues) {
  const ZYMRuntimeTable* const table = plugin().runtimes(nullptr);
  EXPECT_EQ(1u, table->header0);
  EXPECT_EQ(0u, table->header1);
  EXPECT_STREQ("qwen35-cpu", table->name);
  EXPECT_STREQ("Qwen3.5 hybrid CPU runtime (real)", table->description);
  EXPECT_EQ(0xE1u, table->flags);
  EXPECT_NE(nullptr, table->probe);
  EXPECT_NE(nullptr, table->create);
  EXPECT_NE(nullptr, table->destroy);
  EXPECT_NE(nullptr, table->generate);
}

TEST(RuntimeTableV2, HasTheDocumentedValues) {
  const ZYMRuntimeTableV2* const table = plugin().runtimesV2(nullptr);
  EXPECT_EQ(3u, table->header0);
  EXPECT_EQ(0x70u, table->header1);
  EXPECT_EQ(sizeof(*table), table->header1);
  EXPECT_STREQ("qwen35-cpu", table->name);
  EXPECT_STREQ("Qwen3.5 hybrid CPU runtime (real, v2 chat)", table->description);
  EXPECT_EQ(0xFu, table->flags);
  EXPECT_NE(nullptr, table->probe);
  EXPECT_NE(nullptr, table->create);
  EXPECT_NE(nullptr, table->destroy);
  EXPECT_NE(nullptr, table->generate);
  EXPECT_NE(nullptr, table->generateEx);
  EXPECT_NE(nullptr, table->bench);
  EXPECT_NE(nullptr, table->configure);
  EXPECT_NE(nullptr, table->chatTurn);
  EXPECT_NE(nullptr, table->reset);
  EXPECT_NE(nullptr, table->stats);
}

TEST(RuntimeTableV2, SharesTheVersionOneFunctions) {
  const ZYMRuntimeTable* const v1 = plugin().runtimes(nullptr);
  const ZYMRuntimeTableV2* const v2 = plugin().runtimesV2(nullptr);
  EXPECT_EQ(v1->probe, v2->probe);
  EXPECT_EQ(v1->create, v2->create);
  EXPECT_EQ(v1->destroy, v2->destroy);
  EXPECT_EQ(v1->generate, v2->generate);
}

TEST(StreamingTable, HasTheDocumentedValuesAndNoDescription) {
  const ZYMRuntimeTableV2S* const table = plugin().runtimesV2S(nullptr);
  EXPECT_EQ(1u, table->header0);
  EXPECT_EQ(0x18u, table->header1);
  EXPECT_STREQ("qwen35-cpu", table->name);
  EXPECT_NE(nullptr, table->chatTurnStream);
  for (const void* word : table->reserved)
    EXPECT_EQ(nullptr, word);
}

TEST(RuntimeTables, AllCarryTheSameRuntimeName) {
  EXPECT_STREQ("qwen35-cpu", plugin().runtimes(nullptr)->name);
  EXPECT_STREQ("qwen35-cpu", plugin().runtimesV2(nullptr)->name);
  EXPECT_STREQ("qwen35-cpu", plugin().runtimesV2S(nullptr)->name);
}

TEST(EntryPoints, NullCountGivesTheSameTableAndWritesNothing) {
  uint32_t count = 0;
  EXPECT_EQ(plugin().runtimes(&count), plugin().runtimes(nullptr));
  EXPECT_EQ(plugin().runtimesV2(&count), plugin().runtimesV2(nullptr));
  EXPECT_EQ(plugin().runtimesV2S(&count), plugin().runtimesV2S(nullptr));
}

TEST(EntryPoints, WriteExactlyOneWhateverTheCountHeld) {
  for (const uint32_t before : {0u, 1u, 7u, 0xFFFFFFFFu}) {
    // Neighbours on both sides: the entry writes one 32-bit word and nothing beside it.
    uint32_t words[3] = {0xAAAAAAAAu, before, 0xBBBBBBBBu};
    plugin().runtimes(&words[1]);
    EXPECT_EQ(1u, words[1]);
    words[1] = before;
    plugin().runtimesV2(&words[1]);
    EXPECT_EQ(1u, words[1]);
    words[1] = before;
    plugin().runtimesV2S(&words[1]);
    EXPECT_EQ(1u, words[1]);
    EXPECT_EQ(0xAAAAAAAAu, words[0]);
    EXPECT_EQ(0xBBBBBBBBu, words[2]);
  }
}

}  // namespace
