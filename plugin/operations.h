// The operations behind the slots of the runtime tables. Contracts: include/zym/plugin.h.
//
// Nothing thrown leaves any of them (guarded() in plugin/boundary.h).
#pragma once

#include <cstddef>
#include <cstdint>

#include "zym/plugin.h"

namespace plugin {

uint32_t qwen35Probe(const char* path, ZYMRuntimeProbe* out);
uint32_t qwen35Create(const char* modelPath, const char* unused, ZYMRuntimeHandle** outHandle,
                      char* err, size_t errCap);
void qwen35Destroy(ZYMRuntimeHandle* handle);
uint32_t qwen35Generate(ZYMRuntimeHandle* handle, const char* prompt, char* out, size_t outCap);
// What both one-shot entries do: at most 96 new tokens from an empty context.
uint32_t qwen35GenerateN(ZYMRuntimeHandle* handle, const char* prompt, char* out, size_t outCap);
uint32_t qwen35V2GenerateEx(ZYMRuntimeHandle* handle, const char* prompt,
                            const ZYMSessionOptions* options, char* out, size_t outCap);
uint32_t qwen35V2Bench(ZYMRuntimeHandle* handle, const ZYMBenchParams* params,
                       ZYMBenchResult* result);
uint32_t qwen35V2Configure(ZYMRuntimeHandle* handle, const ZYMSessionOptions* options);
uint32_t qwen35V2ChatTurn(ZYMRuntimeHandle* handle, const char* userText, char* out, size_t outCap);
uint32_t qwen35V2Reset(ZYMRuntimeHandle* handle);
uint32_t qwen35V2Stats(ZYMRuntimeHandle* handle, ZYMRuntimeStats* out);
uint32_t qwen35V2ChatTurnStream(ZYMRuntimeHandle* handle, const char* userText,
                                ZYMStreamCallback callback, void* userData, volatile int* cancel);

}  // namespace plugin
