/* zym/plugin.h: the binary interface between a host application and libruntime-qwen35.so.
 *
 * A host loads the library (dlopen), resolves the four zym_plugin_* entry points and calls through
 * the tables that they return. Tables and the texts they point to are constant, owned by the
 * library and valid while it is loaded. The header is valid C11 and C++20 and needs no other header
 * of ours. docs/hosting.md walks through a complete host.
 *
 * Conventions, for every function below:
 *
 * - Status: 0 success; 1 the operation failed: model, tokenizer, numbers, generation or memory;
 *   2 invalid argument (null handle, model not loaded, null or zero-capacity output buffer, null
 *   required record, record declared too short). Nothing is thrown across the boundary.
 * - Texts are NUL-terminated byte strings, normally UTF-8, neither validated nor normalised.
 * - Text buffers are (char* buffer, size_t capacity in bytes) pairs. At most capacity - 1 bytes and
 * a terminating NUL are written; longer text is cut silently, possibly inside a character. An error
 *   buffer may be null or of capacity 0 and then receives nothing. An output buffer is required,
 * and holds the empty string from the start of the work, so that a failed call leaves it empty.
 * - Records begin with a uint32_t structSize where the tables below show one. The library fills it
 * in the records that it writes and honours an options record only when it declares at least 40
 * bytes.
 * - Ownership: the host owns every buffer and record it passes; the library keeps no pointer to
 * them after the call. A handle is freed by destroy exactly once.
 * - Threads: tables may be read from any thread. A handle is not locked: one call at a time per
 *   handle. Different handles are independent. The only value that another thread may change during
 * a call is the cancel flag of a streaming turn.
 * - The model file stays mapped while a handle is open: it must not be truncated in place
 * meanwhile.
 *
 * Layouts are those of a 64-bit little-endian machine with natural alignment; the assertions at the
 * end pin every offset and size.
 */
#ifndef ZYM_PLUGIN_H
#define ZYM_PLUGIN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#define ZYM_STATIC_ASSERT(condition, text) static_assert(condition, text)
#else
#define ZYM_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

#if defined(__GNUC__)
#define ZYM_PLUGIN_EXPORT __attribute__((visibility("default")))
#else
#define ZYM_PLUGIN_EXPORT
#endif

/* Status codes. */
#define ZYM_STATUS_OK UINT32_C(0)
#define ZYM_STATUS_FAILED UINT32_C(1)
#define ZYM_STATUS_INVALID_ARGUMENT UINT32_C(2)

/* Limits a host may want to know. */
#define ZYM_MAX_TURN_TOKENS 96      /* tokens one generating call emits at most */
#define ZYM_CONTEXT_CAPACITY 8192   /* positions a conversation may hold */
#define ZYM_SESSION_OPTIONS_SIZE 40 /* smallest structSize that is honoured */

/* One open model with its conversation. Opaque; made by create, freed by destroy. */
typedef struct ZYMRuntimeHandle ZYMRuntimeHandle;

/* What the library is; returned by zym_plugin_init. */
typedef struct ZYMPluginDescriptor {
  uint32_t header0;        /* 1 */
  uint32_t header1;        /* 1 */
  const char* name;        /* "runtime-qwen35" */
  const char* description; /* one line for people */
  const void* reserved[3]; /* null */
} ZYMPluginDescriptor;

/* Answer of probe. The texts are static strings of the library. */
typedef struct ZYMRuntimeProbe {
  uint32_t score;           /* 0: not for this runtime; 92: it is */
  const char* architecture; /* "" or the matched architecture, "qwen35" or "qwen35moe" */
  const char* device;       /* "cpu" */
  const char* detail;       /* "" or one line about the match */
} ZYMRuntimeProbe;

/* Sampling settings; read by configure and generateEx, never written. */
typedef struct ZYMSessionOptions {
  uint32_t structSize;  /* bytes of the record as the host built it; at least 40 to be honoured */
  float temperature;    /* applied if >= 0; 0 is greedy; NaN is not applied */
  int32_t topK;         /* applied if > 0 */
  float topP;           /* applied if > 0; NaN is not. Below 1 it keeps only the best token */
  uint64_t seed;        /* 0 leaves the generator alone; else reseeds it with the low 32 bits */
  uint64_t reserved[2]; /* not read */
} ZYMSessionOptions;

/* What bench measures; a null record means the defaults. */
typedef struct ZYMBenchParams {
  uint32_t structSize; /* not read */
  int32_t genTokens;   /* decode steps over which the time is averaged; below 1 means 64 */
  int32_t extraTokens; /* further decode steps allowed; below 1 means 8 */
} ZYMBenchParams;

/* Written by bench. */
typedef struct ZYMBenchResult {
  uint32_t structSize;    /* 32 */
  double msPerToken;      /* measured decode time in milliseconds / genTokens */
  double tokensPerSecond; /* 1000 / msPerToken */
  int64_t genTokens;      /* after the default was applied */
} ZYMBenchResult;

/* Written by stats. */
typedef struct ZYMRuntimeStats {
  uint32_t structSize;    /* 32 */
  uint64_t contextTokens; /* positions held in the model's caches */
  double decodeMsTotal;   /* all forward passes since the last reset, ms; a batch of prompt tokens
                             is one pass */
  double lastDecodeMs;    /* the last forward pass, ms, divided by its tokens */
} ZYMRuntimeStats;

/* Receives each piece of a streamed reply as soon as it exists, on the calling thread, between
 * forward passes. piece: NUL-terminated, valid during the call only; a piece may hold part of a
 * character, or a NUL. length: bytes without the terminator. userData: as passed to the turn. */
typedef void (*ZYMStreamCallback)(const char* piece, uint32_t length, void* userData);

/* Does this file belong to the runtime? Always returns 0; the answer is in out, which may be null.
 * A path that does not end in ".zym" costs no file access. */
typedef uint32_t (*ZYMProbeFn)(const char* path, ZYMRuntimeProbe* out);

/* Opens a model. unused: ignored. *outHandle receives the handle, or null on failure; the message
 * of a failure goes to err (capacity errCap), except when memory runs out: err is then left as it
 * is. 2 when outHandle is null. */
typedef uint32_t (*ZYMCreateFn)(const char* modelPath, const char* unused,
                                ZYMRuntimeHandle** outHandle, char* err, size_t errCap);

/* Frees a handle and unmaps its file. Null is ignored. */
typedef void (*ZYMDestroyFn)(ZYMRuntimeHandle* handle);

/* Completes a prompt from an empty context with the session's sampling settings: at most 96 tokens.
 * Ends a conversation in progress. A null prompt is the empty text. */
typedef uint32_t (*ZYMGenerateFn)(ZYMRuntimeHandle* handle, const char* prompt, char* out,
                                  size_t outCap);

/* The same with settings for this one call; temperature, topK and topP are put back afterwards, a
 * reseeded generator is not. options may be null; a record that declares too few bytes is ignored.
 */
typedef uint32_t (*ZYMGenerateExFn)(ZYMRuntimeHandle* handle, const char* prompt,
                                    const ZYMSessionOptions* options, char* out, size_t outCap);

/* Measures greedy decoding after a fixed short prompt. Drops the conversation; the context is empty
 * afterwards. params may be null. */
typedef uint32_t (*ZYMBenchFn)(ZYMRuntimeHandle* handle, const ZYMBenchParams* params,
                               ZYMBenchResult* result);

/* Changes the sampling settings until they are changed again. 2 for a null handle or record, or a
 * structSize below 40. */
typedef uint32_t (*ZYMConfigureFn)(ZYMRuntimeHandle* handle, const ZYMSessionOptions* options);

/* One turn of a conversation: feeds the user's text behind what the context holds and returns the
 * assistant's reply (at most 96 tokens). Null text is the empty text. A failed turn leaves what was
 * fed in the context, also when memory ran out; reset starts afresh. */
typedef uint32_t (*ZYMChatTurnFn)(ZYMRuntimeHandle* handle, const char* userText, char* out,
                                  size_t outCap);

/* Empties context and counters; sampling settings and generator are kept. */
typedef uint32_t (*ZYMResetFn)(ZYMRuntimeHandle* handle);

/* Reports position and timing; works without a loaded model. */
typedef uint32_t (*ZYMStatsFn)(ZYMRuntimeHandle* handle, ZYMRuntimeStats* out);

/* A chat turn whose pieces go to callback (may be null: the turn runs silently). cancel may be
 * null; otherwise a non-zero value, set from any thread or from inside the callback, ends the turn
 * with status 0 after the piece in flight. The library only reads the flag. */
typedef uint32_t (*ZYMChatTurnStreamFn)(ZYMRuntimeHandle* handle, const char* userText,
                                        ZYMStreamCallback callback, void* userData,
                                        volatile int* cancel);

/* Interface version 1. */
typedef struct ZYMRuntimeTable {
  uint32_t header0; /* 1 */
  uint32_t header1; /* 0 */
  const char* name; /* "qwen35-cpu", the same in all three tables */
  const char* description;
  uint64_t flags; /* 0xE1 */
  ZYMProbeFn probe;
  ZYMCreateFn create;
  ZYMDestroyFn destroy;
  ZYMGenerateFn generate;
} ZYMRuntimeTable;

/* Interface version 2. */
typedef struct ZYMRuntimeTableV2 {
  uint32_t header0; /* 3 */
  uint32_t header1; /* 0x70, the bytes of this table */
  const char* name;
  const char* description;
  uint64_t flags; /* 0xF */
  ZYMProbeFn probe;
  ZYMCreateFn create;
  ZYMDestroyFn destroy;
  ZYMGenerateFn generate;
  ZYMGenerateExFn generateEx;
  ZYMBenchFn bench;
  ZYMConfigureFn configure;
  ZYMChatTurnFn chatTurn;
  ZYMResetFn reset;
  ZYMStatsFn stats;
} ZYMRuntimeTableV2;

/* Streaming interface. Deliberately without a description: the function follows the name. */
typedef struct ZYMRuntimeTableV2S {
  uint32_t header0; /* 1 */
  uint32_t header1; /* 0x18: header, name and function pointer */
  const char* name;
  ZYMChatTurnStreamFn chatTurnStream;
  const void* reserved[3]; /* null */
} ZYMRuntimeTableV2S;

/* Types of the entry points, for dlsym. */
typedef const ZYMPluginDescriptor* (*ZYMPluginInitFn)(void);
typedef const ZYMRuntimeTable* (*ZYMPluginRuntimesFn)(uint32_t* count);
typedef const ZYMRuntimeTableV2* (*ZYMPluginRuntimesV2Fn)(uint32_t* count);
typedef const ZYMRuntimeTableV2S* (*ZYMPluginRuntimesV2SFn)(uint32_t* count);

/* The exported entry points. Each runtimes entry returns an array of exactly one table and writes 1
 * to *count when count is not null. */
ZYM_PLUGIN_EXPORT const ZYMPluginDescriptor* zym_plugin_init(void);
ZYM_PLUGIN_EXPORT const ZYMRuntimeTable* zym_plugin_runtimes(uint32_t* count);
ZYM_PLUGIN_EXPORT const ZYMRuntimeTableV2* zym_plugin_runtimes_v2(uint32_t* count);
ZYM_PLUGIN_EXPORT const ZYMRuntimeTableV2S* zym_plugin_runtimes_v2s(uint32_t* count);

#define ZYM_ASSERT_FIELD(type, field, at) \
  ZYM_STATIC_ASSERT(offsetof(type, field) == (at), #type "." #field " moved")
#define ZYM_ASSERT_SIZE(type, bytes) ZYM_STATIC_ASSERT(sizeof(type) == (bytes), #type " resized")

ZYM_ASSERT_FIELD(ZYMPluginDescriptor, header0, 0);
ZYM_ASSERT_FIELD(ZYMPluginDescriptor, header1, 4);
ZYM_ASSERT_FIELD(ZYMPluginDescriptor, name, 8);
ZYM_ASSERT_FIELD(ZYMPluginDescriptor, description, 16);
ZYM_ASSERT_FIELD(ZYMPluginDescriptor, reserved, 24);
ZYM_ASSERT_SIZE(ZYMPluginDescriptor, 48);

ZYM_ASSERT_FIELD(ZYMRuntimeProbe, score, 0);
ZYM_ASSERT_FIELD(ZYMRuntimeProbe, architecture, 8);
ZYM_ASSERT_FIELD(ZYMRuntimeProbe, device, 16);
ZYM_ASSERT_FIELD(ZYMRuntimeProbe, detail, 24);
ZYM_ASSERT_SIZE(ZYMRuntimeProbe, 32);

ZYM_ASSERT_FIELD(ZYMSessionOptions, structSize, 0);
ZYM_ASSERT_FIELD(ZYMSessionOptions, temperature, 4);
ZYM_ASSERT_FIELD(ZYMSessionOptions, topK, 8);
ZYM_ASSERT_FIELD(ZYMSessionOptions, topP, 12);
ZYM_ASSERT_FIELD(ZYMSessionOptions, seed, 16);
ZYM_ASSERT_FIELD(ZYMSessionOptions, reserved, 24);
ZYM_ASSERT_SIZE(ZYMSessionOptions, ZYM_SESSION_OPTIONS_SIZE);

ZYM_ASSERT_FIELD(ZYMBenchParams, structSize, 0);
ZYM_ASSERT_FIELD(ZYMBenchParams, genTokens, 4);
ZYM_ASSERT_FIELD(ZYMBenchParams, extraTokens, 8);
ZYM_ASSERT_SIZE(ZYMBenchParams, 12);

ZYM_ASSERT_FIELD(ZYMBenchResult, structSize, 0);
ZYM_ASSERT_FIELD(ZYMBenchResult, msPerToken, 8);
ZYM_ASSERT_FIELD(ZYMBenchResult, tokensPerSecond, 16);
ZYM_ASSERT_FIELD(ZYMBenchResult, genTokens, 24);
ZYM_ASSERT_SIZE(ZYMBenchResult, 32);

ZYM_ASSERT_FIELD(ZYMRuntimeStats, structSize, 0);
ZYM_ASSERT_FIELD(ZYMRuntimeStats, contextTokens, 8);
ZYM_ASSERT_FIELD(ZYMRuntimeStats, decodeMsTotal, 16);
ZYM_ASSERT_FIELD(ZYMRuntimeStats, lastDecodeMs, 24);
ZYM_ASSERT_SIZE(ZYMRuntimeStats, 32);

ZYM_ASSERT_FIELD(ZYMRuntimeTable, header0, 0);
ZYM_ASSERT_FIELD(ZYMRuntimeTable, header1, 4);
ZYM_ASSERT_FIELD(ZYMRuntimeTable, name, 8);
ZYM_ASSERT_FIELD(ZYMRuntimeTable, description, 16);
ZYM_ASSERT_FIELD(ZYMRuntimeTable, flags, 24);
ZYM_ASSERT_FIELD(ZYMRuntimeTable, probe, 32);
ZYM_ASSERT_FIELD(ZYMRuntimeTable, create, 40);
ZYM_ASSERT_FIELD(ZYMRuntimeTable, destroy, 48);
ZYM_ASSERT_FIELD(ZYMRuntimeTable, generate, 56);
ZYM_ASSERT_SIZE(ZYMRuntimeTable, 64);

ZYM_ASSERT_FIELD(ZYMRuntimeTableV2, header0, 0);
ZYM_ASSERT_FIELD(ZYMRuntimeTableV2, header1, 4);
ZYM_ASSERT_FIELD(ZYMRuntimeTableV2, name, 8);
ZYM_ASSERT_FIELD(ZYMRuntimeTableV2, description, 16);
ZYM_ASSERT_FIELD(ZYMRuntimeTableV2, flags, 24);
ZYM_ASSERT_FIELD(ZYMRuntimeTableV2, probe, 32);
ZYM_ASSERT_FIELD(ZYMRuntimeTableV2, create, 40);
ZYM_ASSERT_FIELD(ZYMRuntimeTableV2, destroy, 48);
ZYM_ASSERT_FIELD(ZYMRuntimeTableV2, generate, 56);
ZYM_ASSERT_FIELD(ZYMRuntimeTableV2, generateEx, 64);
ZYM_ASSERT_FIELD(ZYMRuntimeTableV2, bench, 72);
ZYM_ASSERT_FIELD(ZYMRuntimeTableV2, configure, 80);
ZYM_ASSERT_FIELD(ZYMRuntimeTableV2, chatTurn, 88);
ZYM_ASSERT_FIELD(ZYMRuntimeTableV2, reset, 96);
ZYM_ASSERT_FIELD(ZYMRuntimeTableV2, stats, 104);
ZYM_ASSERT_SIZE(ZYMRuntimeTableV2, 0x70);

ZYM_ASSERT_FIELD(ZYMRuntimeTableV2S, header0, 0);
ZYM_ASSERT_FIELD(ZYMRuntimeTableV2S, header1, 4);
ZYM_ASSERT_FIELD(ZYMRuntimeTableV2S, name, 8);
ZYM_ASSERT_FIELD(ZYMRuntimeTableV2S, chatTurnStream, 16);
ZYM_ASSERT_FIELD(ZYMRuntimeTableV2S, reserved, 24);
ZYM_ASSERT_SIZE(ZYMRuntimeTableV2S, 48);

#undef ZYM_ASSERT_FIELD
#undef ZYM_ASSERT_SIZE

#ifdef __cplusplus
}
#endif

#endif /* ZYM_PLUGIN_H */
