/* zym/engine.h: conversations with models of every size of the family, for programs that link
 * libzym.so.
 *
 *   ZYMMessage hello = {.structSize = sizeof hello, .role = ZYM_ROLE_USER,
 *                       .content = zym_text("Hello!")};
 *   const ZYMMessage* messages[] = {&hello};
 *   ZYMConversation asked = {.structSize = sizeof asked, .messages = messages,
 *                            .messageCount = 1};
 *   char error[256];
 *   if (zym_model_open("model.zym", &model, error, sizeof error) == ZYM_OK &&
 *       zym_context_create(model, NULL, &context, error, sizeof error) == ZYM_OK &&
 *       zym_context_reply(context, &asked, NULL, NULL, NULL, &reply, error,
 *                         sizeof error) == ZYM_OK) {
 *     puts(reply->message->content.data);
 *   }
 *
 * The header is valid C11 and C++20 and needs no other header of ours. docs/engine.md has a
 * complete program.
 *
 * Conventions, for every function below:
 *
 * - Status: ZYM_OK or the reason of a failure. A function that fails leaves what it would have
 *   written as it was, if it says nothing else. Nothing is thrown across the border. An argument
 *   that can be told to be wrong (a null pointer where one is required, a value out of its range,
 *   text that is not UTF-8, a record of a wrong size) makes a call fail and does nothing else.
 * - Messages: where a function takes (char* error, size_t errorBytes), a failure writes one line
 *   about itself there, cut to errorBytes - 1 bytes at a whole character, and a terminating NUL. A
 *   success writes nothing. error may be null, errorBytes 0.
 * - Text is a ZYMText: UTF-8 and its size in bytes; a NUL is a character like others. Text that the
 *   library gives out has a NUL behind it, which the size does not count. Names of files are
 *   NUL-terminated, as the system's own are.
 * - Records that may grow begin with structSize: the bytes of the record as the caller has compiled
 *   it, sizeof(the record). Each other field means its default when it is 0 or null: a record is
 *   made by setting structSize and what matters, and the rest to zero. Later releases append
 *   fields. Of a record that is shorter than the library's, the fields that it lacks are at their
 *   defaults; of a longer one, all bytes behind those that the library knows have to be 0, for what
 *   it does not know it cannot honour (ZYM_ERROR_RECORD). structSize is a multiple of 8, from 8 to
 *   4096. Fields called reserved have to be 0.
 * - A caller's record that the library fills in is written up to the shorter of both sizes; what is
 *   behind is set to 0. Of records that the library makes, structSize says what there is.
 * - Flags are of type uint32_t: 0 for no, anything else for yes.
 * - Ownership: records, texts and arrays that are passed in are the caller's; the library keeps no
 *   pointer to them after the call. What a function makes is freed once, by the function that its
 *   comment names; freeing null does nothing. Nobody may use what has been freed, or free it again.
 * - Threads: a model may be used by any number of threads at once. A context or decoder is used by
 *   one at a time, whichever it is. A call that finds its context in use by another call, be it of
 *   another thread or the one whose callback it comes from, fails with ZYM_ERROR_BUSY; only
 *   zym_context_cancel may come at any time. Different contexts are independent, those of one model
 *   too. Within a call several threads compute (docs/hosting.md, "Threads", holds here, too).
 * - A model file stays mapped while the model, or a context or decoder of it, exists: it must not
 *   be truncated in place meanwhile.
 *
 * Layouts are those of a 64-bit little-endian machine with natural alignment; the assertions at the
 * end pin every offset and size.
 */
#ifndef ZYM_ENGINE_H
#define ZYM_ENGINE_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#define ZYM_ENGINE_ASSERT(condition, text) static_assert(condition, text)
#else
#define ZYM_ENGINE_ASSERT(condition, text) _Static_assert(condition, text)
#endif

#if defined(__GNUC__)
#define ZYM_ENGINE_EXPORT __attribute__((visibility("default")))
#else
#define ZYM_ENGINE_EXPORT
#endif

/* Further ones may follow in later releases. */
typedef enum ZYMStatus {
  ZYM_OK = 0,
  ZYM_ERROR_ARGUMENT = 1,    /* a call cannot be meant so: see the message */
  ZYM_ERROR_RECORD = 2,      /* structSize is wrong, or a field is set that this release lacks */
  ZYM_ERROR_FILE = 3,        /* the system refuses a file: it is missing, the disk is full, ... */
  ZYM_ERROR_FORMAT = 4,      /* a file is damaged, or not what it should be */
  ZYM_ERROR_UNSUPPORTED = 5, /* a model that this release does not run, a context of another one */
  ZYM_ERROR_MEMORY = 6,      /* there is not enough */
  ZYM_ERROR_NUMBERS = 7,     /* the model's numbers run out of range: its weights are damaged */
  ZYM_ERROR_ROOM = 8,        /* the context has too few positions for the conversation */
  ZYM_ERROR_CAPACITY = 9,    /* the caller's buffer is too small; the size it takes is written */
  ZYM_ERROR_BUSY = 10,       /* the context is in use by another call */
  ZYM_ERROR_INTERNAL = 11    /* a fault of the library */
} ZYMStatus;

/* UTF-8, not necessarily NUL-terminated; data may be null where size is 0. */
typedef struct ZYMText {
  const char* data;
  size_t size; /* bytes */
} ZYMText;

/* The text of a C string, which stays where it is. Null gives the empty text. */
static inline ZYMText zym_text(const char* string) {
  ZYMText text;
  text.data = string;
  text.size = string == NULL ? 0 : strlen(string);
  return text;
}

/* A model file with its tokenizer, opened once. Immutable. */
typedef struct ZYMModel ZYMModel;

/* One conversation's place in a model: the tokens read and generated, as state of the model. It
 * remembers; what a conversation is, its messages say every time. */
typedef struct ZYMContext ZYMContext;

/* Token ids on their way to text. */
typedef struct ZYMDecoder ZYMDecoder;

/* --- The library --- */

/* "0.1.0". A constant. */
ZYM_ENGINE_EXPORT const char* zym_engine_version(void);

/* A few words, "not enough memory"; "unknown status" for any other number. A constant. */
ZYM_ENGINE_EXPORT const char* zym_status_text(int32_t status);

/* --- Models --- */

/* Filled in by zym_model_facts. The texts live as long as the model is open. */
typedef struct ZYMModelFacts {
  uint32_t structSize;
  uint32_t layers;
  uint64_t vocabulary;    /* token ids go from 0 to below this */
  uint64_t positions;     /* the most that a context may have */
  uint64_t hiddenSize;    /* width of an embedding */
  uint32_t canThink;      /* its vocabulary has the tokens of reasoning */
  uint32_t thinks;        /* it reasons where ZYM_THINKING_DEFAULT is asked for */
  int32_t beginToken;     /* that begins a text; negative: none */
  int32_t endToken;       /* that ends one; negative: none */
  ZYMText path;           /* as it was opened */
  ZYMText name;           /* of the model, as the file has it; may be empty */
  ZYMText templateRemark; /* empty, or what to tell people of the file's chat template */
} ZYMModelFacts;

/* Opens a container. Reads no weights. *model is freed by zym_model_close; null on failure. */
ZYM_ENGINE_EXPORT ZYMStatus zym_model_open(const char* path, ZYMModel** model, char* error,
                                           size_t errorBytes);

/* Contexts and decoders of the model keep what they need of it. */
ZYM_ENGINE_EXPORT void zym_model_close(ZYMModel* model);

ZYM_ENGINE_EXPORT ZYMStatus zym_model_facts(const ZYMModel* model, ZYMModelFacts* facts);

/* --- Tokens --- */

/* The ids of a text, as the models of the family were trained. Special tokens that are written out
 * are text, unless readsMarks. No beginning token is added. *count receives how many there are; up
 * to capacity of them are room at ids: with ZYM_ERROR_CAPACITY none is written. ids may be null for
 * a capacity of 0. */
ZYM_ENGINE_EXPORT ZYMStatus zym_model_tokenize(const ZYMModel* model, ZYMText text,
                                               uint32_t readsMarks, int32_t* ids, size_t capacity,
                                               size_t* count, char* error, size_t errorBytes);

/* The text of ids, of which special ones are shown or left out. *size receives its bytes; buffer
 * needs one more, for a NUL: with ZYM_ERROR_CAPACITY nothing is written there. buffer may be null
 * for a capacity of 0. Bytes that make up no character come out as U+FFFD. */
ZYM_ENGINE_EXPORT ZYMStatus zym_model_detokenize(const ZYMModel* model, const int32_t* ids,
                                                 size_t count, uint32_t showsSpecials, char* buffer,
                                                 size_t capacity, size_t* size, char* error,
                                                 size_t errorBytes);

/* The same while ids come. *decoder is freed by zym_decoder_destroy; null on failure. */
ZYM_ENGINE_EXPORT ZYMStatus zym_decoder_create(const ZYMModel* model, uint32_t showsSpecials,
                                               ZYMDecoder** decoder);

/* *text receives what is complete with this id, whole characters, perhaps none. It is the
 * decoder's, until the next call with it. */
ZYM_ENGINE_EXPORT ZYMStatus zym_decoder_feed(ZYMDecoder* decoder, int32_t id, ZYMText* text);

/* The text ends: *text receives what was held back. Another text may begin. */
ZYM_ENGINE_EXPORT ZYMStatus zym_decoder_finish(ZYMDecoder* decoder, ZYMText* text);

ZYM_ENGINE_EXPORT void zym_decoder_destroy(ZYMDecoder* decoder);

/* --- Conversations --- */

typedef enum ZYMRole {
  ZYM_ROLE_SYSTEM = 1, /* first or not at all */
  ZYM_ROLE_USER = 2,
  ZYM_ROLE_ASSISTANT = 3,
  ZYM_ROLE_TOOL = 4 /* the result of a call */
} ZYMRole;

/* A call of a tool, as part of an assistant's message. */
typedef struct ZYMToolCall {
  uint32_t structSize;
  uint32_t reserved;
  ZYMText name;
  ZYMText arguments; /* a JSON object; empty: one without members */
} ZYMToolCall;

typedef struct ZYMMessage {
  uint32_t structSize;
  int32_t role; /* ZYMRole */
  ZYMText content;
  /* Of assistants alone. data null: there is none, or the content encloses it in "<think>" and
   * "</think>". */
  ZYMText reasoning;
  const ZYMToolCall* const* calls; /* of assistants alone */
  size_t callCount;
} ZYMMessage;

typedef enum ZYMThinking {
  ZYM_THINKING_DEFAULT = 0, /* as ZYMModelFacts.thinks says */
  ZYM_THINKING_OFF = 1,
  ZYM_THINKING_ON = 2 /* the reply begins with reasoning; no effect on a model that cannot think */
} ZYMThinking;

/* What a reply is asked for. Control tokens that contents spell are text. */
typedef struct ZYMConversation {
  uint32_t structSize;
  int32_t thinking; /* ZYMThinking */
  const ZYMMessage* const* messages;
  size_t messageCount;
  const ZYMText* tools; /* functions that the model may call: a JSON object each */
  size_t toolCount;
  uint32_t keepsReasoning; /* that of turns before the last user message is part of the text, too */
  uint32_t reserved;
} ZYMConversation;

/* The ids of a conversation with the beginning of the reply to come: *count is what it takes of the
 * positions of a context. ids, capacity and count as for zym_model_tokenize. */
ZYM_ENGINE_EXPORT ZYMStatus zym_model_tokenize_conversation(const ZYMModel* model,
                                                            const ZYMConversation* conversation,
                                                            int32_t* ids, size_t capacity,
                                                            size_t* count, char* error,
                                                            size_t errorBytes);

/* --- Contexts --- */

typedef enum ZYMCacheType {
  ZYM_CACHE_F32 = 0,
  ZYM_CACHE_BF16 = 1 /* half the memory for each position, rounded; docs/engine.md has the error */
} ZYMCacheType;

typedef struct ZYMContextOptions {
  uint32_t structSize;
  int32_t cacheType;      /* ZYMCacheType */
  uint64_t positions;     /* at most the model's; 0: those, at most 32,768 */
  uint64_t snapshotBytes; /* for places to go back to, at least two; 0: 1 GiB */
  uint32_t threads;       /* that compute, at most, 1 to 1024; 0: as the machine has cores */
  uint32_t reserved;
} ZYMContextOptions;

/* Of a context since it was made, filled in by zym_context_statistics. */
typedef struct ZYMStatistics {
  uint32_t structSize;
  uint32_t reserved;
  uint64_t positions;       /* that it has */
  uint64_t filled;          /* of those */
  uint64_t promptTokens;    /* read */
  uint64_t generatedTokens; /* generated, or read as what was */
  uint64_t reusedTokens;    /* of conversations, that were in place */
  uint64_t rejectedGuesses; /* tokens guessed ahead in vain */
  double promptSeconds;
  double generatedSeconds;
} ZYMStatistics;

/* options may be null. Memory for positions is taken as they fill. *context is freed by
 * zym_context_destroy; null on failure. */
ZYM_ENGINE_EXPORT ZYMStatus zym_context_create(const ZYMModel* model,
                                               const ZYMContextOptions* options,
                                               ZYMContext** context, char* error,
                                               size_t errorBytes);

/* ZYM_ERROR_BUSY leaves it as it is. */
ZYM_ENGINE_EXPORT ZYMStatus zym_context_destroy(ZYMContext* context);

ZYM_ENGINE_EXPORT ZYMStatus zym_context_statistics(ZYMContext* context, ZYMStatistics* statistics);

/* Forgets everything, so that the next conversation is read from its beginning. Statistics stay.
 * Never needed: a context takes any conversation, whatever it holds. */
ZYM_ENGINE_EXPORT ZYMStatus zym_context_reset(ZYMContext* context);

/* Writes what the context holds to a file, with a note of any bytes (the messages, say): complete
 * or not at all. */
ZYM_ENGINE_EXPORT ZYMStatus zym_context_save(ZYMContext* context, const char* path, ZYMText note,
                                             char* error, size_t errorBytes);

/* Takes the place of a saved context of the same model, cache type and at most as many tokens as
 * there are positions. *note, which may be null, receives the note; it is the context's, until the
 * next load or destroy. A failure changes nothing. */
ZYM_ENGINE_EXPORT ZYMStatus zym_context_load(ZYMContext* context, const char* path, ZYMText* note,
                                             char* error, size_t errorBytes);

/* --- Replies --- */

/* Added to the logit of a token: -100 to 100, or minus infinity, which bans it. Does not grow. */
typedef struct ZYMLogitBias {
  int32_t id;
  float bias;
} ZYMLogitBias;

/* How tokens are chosen. All zero: always the best one. */
typedef struct ZYMSampling {
  uint32_t structSize;
  float temperature;        /* from 0; 0: always the best token */
  int32_t topK;             /* among so many best tokens; 0: all */
  float topP;               /* among the fewest that have this share, up to 1; 0: all */
  float minP;               /* among those with this share of the best one's probability, up to 1 */
  float presencePenalty;    /* -2 to 2, once for each token of the reply */
  float frequencyPenalty;   /* -2 to 2, each time that it occurs there */
  float repetitionPenalty;  /* above 0, for tokens of prompt and reply; 1, or 0: none */
  int32_t repetitionWindow; /* the last so many tokens count; 0: all */
  uint32_t reserved;
  const ZYMLogitBias* biases; /* of an id that occurs again the last one counts */
  size_t biasCount;
} ZYMSampling;

typedef enum ZYMSamplingMode {
  ZYM_SAMPLING_THINKING = 1,
  ZYM_SAMPLING_PRECISE_CODING = 2, /* thinking, for code that has to be right to the letter */
  ZYM_SAMPLING_WITHOUT_THINKING = 3
} ZYMSamplingMode;

/* Fills in what the makers of the model recommend, which is what a reply takes by itself, too.
 * mode: ZYMSamplingMode. */
ZYM_ENGINE_EXPORT ZYMStatus zym_model_recommended_sampling(const ZYMModel* model, int32_t mode,
                                                           ZYMSampling* sampling);

typedef struct ZYMReplyOptions {
  uint32_t structSize;
  uint32_t hasSeed;            /* seed is given; otherwise it is drawn, and told in the reply */
  uint64_t seed;               /* same seed, conversation and options: same reply */
  const ZYMSampling* sampling; /* null: as recommended */
  uint64_t maxTokens;          /* reasoning included; 0: as many as there is room for */
  uint64_t thinkingTokens;     /* after so many reasoning is closed; 0: never */
  const ZYMText* stops;        /* texts that end the answer and are no part of it, none empty */
  size_t stopCount;
  uint32_t tellsTokens;    /* ZYM_EVENT_TOKEN is told */
  uint32_t bestTokens;     /* with so many of the best ones, at most 1000 */
  uint32_t withoutGuesses; /* no look-ahead in the text so far; changes speed alone */
  uint32_t reserved;
} ZYMReplyOptions;

/* Natural logarithm of the probability of a token, by the model's logits alone. Does not grow. */
typedef struct ZYMTokenProbability {
  int32_t id;
  uint32_t reserved;
  double logProbability;
} ZYMTokenProbability;

/* Later releases may have further kinds: pass over those that are not known. */
typedef enum ZYMEventKind {
  ZYM_EVENT_PROMPT = 1,          /* done of total tokens are read; once before all, with 0 of 0 */
  ZYM_EVENT_REASONING = 2,       /* text */
  ZYM_EVENT_ANSWER = 3,          /* text */
  ZYM_EVENT_CALL_BEGIN = 4,      /* name of the function */
  ZYM_EVENT_CALL_ARGUMENT = 5,   /* name of the parameter, json of its value */
  ZYM_EVENT_CALL_COMPLETE = 6,   /* name of the function, json of all arguments */
  ZYM_EVENT_CALL_INCOMPLETE = 7, /* the reply has ended within a call: what is known of name and
                                    json, text as it was written */
  ZYM_EVENT_CALL_MALFORMED = 8,  /* the call that has begun is none; its text follows as answer */
  ZYM_EVENT_TOKEN = 9            /* token was chosen, before the events of its text */
} ZYMEventKind;

typedef struct ZYMEvent {
  uint32_t structSize;
  int32_t kind; /* ZYMEventKind */
  ZYMText text;
  ZYMText name;
  ZYMText json;
  uint64_t done;
  uint64_t total;
  ZYMTokenProbability token;
  const ZYMTokenProbability* best; /* best first */
  size_t bestCount;
} ZYMEvent;

/* Told of a reply as it comes, on the thread that asked for it. event and its texts live until the
 * return. Returning anything but 0 cancels the reply, and nothing more of it is told. It may call
 * the library, but with this context only zym_context_cancel, and it must not throw or jump out. */
typedef int (*ZYMEventCallback)(const ZYMEvent* event, void* userData);

typedef enum ZYMReplyEnd {
  ZYM_END_STOP = 1,        /* by itself */
  ZYM_END_STOP_STRING = 2, /* before one of the stops */
  ZYM_END_LIMIT = 3,       /* at maxTokens */
  ZYM_END_CONTEXT_FULL = 4,
  ZYM_END_CANCELLED = 5
} ZYMReplyEnd;

/* Made by the library, with all it points to; freed by zym_reply_destroy. */
typedef struct ZYMReply {
  uint32_t structSize;
  int32_t end;               /* ZYMReplyEnd */
  const ZYMMessage* message; /* the assistant's: for the next turn it goes behind the messages */
  ZYMText stopString;        /* that has ended it */
  uint32_t hasIncompleteCall;
  uint32_t reserved;
  uint64_t promptTokens; /* of the conversation with the beginning of the reply */
  uint64_t reusedTokens; /* of those, that the context held */
  uint64_t tokens;       /* generated */
  uint64_t seed;         /* of the choices */
} ZYMReply;

/* Generates the reply to a conversation. What the context holds of it is not read again. options,
 * callback and userData may be null. *reply, which may not, is null on failure; a reply that is
 * cancelled is none. On failure the context holds some beginning of the conversation. */
ZYM_ENGINE_EXPORT ZYMStatus zym_context_reply(ZYMContext* context,
                                              const ZYMConversation* conversation,
                                              const ZYMReplyOptions* options,
                                              ZYMEventCallback callback, void* userData,
                                              ZYMReply** reply, char* error, size_t errorBytes);

/* The same for a text, at least one id, that the model goes on with: no framing, and all of it
 * answer. Recommended sampling is that without thinking. */
ZYM_ENGINE_EXPORT ZYMStatus zym_context_continue(ZYMContext* context, const int32_t* ids,
                                                 size_t count, const ZYMReplyOptions* options,
                                                 ZYMEventCallback callback, void* userData,
                                                 ZYMReply** reply, char* error, size_t errorBytes);

/* Ends the reply that is under way in the context: between two layers while the conversation is
 * read, else within a token. Without one it does nothing: who must not come too early also answers
 * the first ZYM_EVENT_PROMPT by something else than 0. Any thread, any time before the context is
 * destroyed, signal handlers too. */
ZYM_ENGINE_EXPORT ZYMStatus zym_context_cancel(ZYMContext* context);

ZYM_ENGINE_EXPORT void zym_reply_destroy(ZYMReply* reply);

#define ZYM_ENGINE_FIELD(type, field, at) \
  ZYM_ENGINE_ASSERT(offsetof(type, field) == (at), #type "." #field " moved")
#define ZYM_ENGINE_SIZE(type, bytes) ZYM_ENGINE_ASSERT(sizeof(type) == (bytes), #type " resized")

ZYM_ENGINE_FIELD(ZYMText, data, 0);
ZYM_ENGINE_FIELD(ZYMText, size, 8);
ZYM_ENGINE_SIZE(ZYMText, 16);

ZYM_ENGINE_FIELD(ZYMModelFacts, structSize, 0);
ZYM_ENGINE_FIELD(ZYMModelFacts, layers, 4);
ZYM_ENGINE_FIELD(ZYMModelFacts, vocabulary, 8);
ZYM_ENGINE_FIELD(ZYMModelFacts, positions, 16);
ZYM_ENGINE_FIELD(ZYMModelFacts, hiddenSize, 24);
ZYM_ENGINE_FIELD(ZYMModelFacts, canThink, 32);
ZYM_ENGINE_FIELD(ZYMModelFacts, thinks, 36);
ZYM_ENGINE_FIELD(ZYMModelFacts, beginToken, 40);
ZYM_ENGINE_FIELD(ZYMModelFacts, endToken, 44);
ZYM_ENGINE_FIELD(ZYMModelFacts, path, 48);
ZYM_ENGINE_FIELD(ZYMModelFacts, name, 64);
ZYM_ENGINE_FIELD(ZYMModelFacts, templateRemark, 80);
ZYM_ENGINE_SIZE(ZYMModelFacts, 96);

ZYM_ENGINE_FIELD(ZYMToolCall, structSize, 0);
ZYM_ENGINE_FIELD(ZYMToolCall, reserved, 4);
ZYM_ENGINE_FIELD(ZYMToolCall, name, 8);
ZYM_ENGINE_FIELD(ZYMToolCall, arguments, 24);
ZYM_ENGINE_SIZE(ZYMToolCall, 40);

ZYM_ENGINE_FIELD(ZYMMessage, structSize, 0);
ZYM_ENGINE_FIELD(ZYMMessage, role, 4);
ZYM_ENGINE_FIELD(ZYMMessage, content, 8);
ZYM_ENGINE_FIELD(ZYMMessage, reasoning, 24);
ZYM_ENGINE_FIELD(ZYMMessage, calls, 40);
ZYM_ENGINE_FIELD(ZYMMessage, callCount, 48);
ZYM_ENGINE_SIZE(ZYMMessage, 56);

ZYM_ENGINE_FIELD(ZYMConversation, structSize, 0);
ZYM_ENGINE_FIELD(ZYMConversation, thinking, 4);
ZYM_ENGINE_FIELD(ZYMConversation, messages, 8);
ZYM_ENGINE_FIELD(ZYMConversation, messageCount, 16);
ZYM_ENGINE_FIELD(ZYMConversation, tools, 24);
ZYM_ENGINE_FIELD(ZYMConversation, toolCount, 32);
ZYM_ENGINE_FIELD(ZYMConversation, keepsReasoning, 40);
ZYM_ENGINE_FIELD(ZYMConversation, reserved, 44);
ZYM_ENGINE_SIZE(ZYMConversation, 48);

ZYM_ENGINE_FIELD(ZYMContextOptions, structSize, 0);
ZYM_ENGINE_FIELD(ZYMContextOptions, cacheType, 4);
ZYM_ENGINE_FIELD(ZYMContextOptions, positions, 8);
ZYM_ENGINE_FIELD(ZYMContextOptions, snapshotBytes, 16);
ZYM_ENGINE_FIELD(ZYMContextOptions, threads, 24);
ZYM_ENGINE_FIELD(ZYMContextOptions, reserved, 28);
ZYM_ENGINE_SIZE(ZYMContextOptions, 32);

ZYM_ENGINE_FIELD(ZYMStatistics, structSize, 0);
ZYM_ENGINE_FIELD(ZYMStatistics, reserved, 4);
ZYM_ENGINE_FIELD(ZYMStatistics, positions, 8);
ZYM_ENGINE_FIELD(ZYMStatistics, filled, 16);
ZYM_ENGINE_FIELD(ZYMStatistics, promptTokens, 24);
ZYM_ENGINE_FIELD(ZYMStatistics, generatedTokens, 32);
ZYM_ENGINE_FIELD(ZYMStatistics, reusedTokens, 40);
ZYM_ENGINE_FIELD(ZYMStatistics, rejectedGuesses, 48);
ZYM_ENGINE_FIELD(ZYMStatistics, promptSeconds, 56);
ZYM_ENGINE_FIELD(ZYMStatistics, generatedSeconds, 64);
ZYM_ENGINE_SIZE(ZYMStatistics, 72);

ZYM_ENGINE_FIELD(ZYMLogitBias, id, 0);
ZYM_ENGINE_FIELD(ZYMLogitBias, bias, 4);
ZYM_ENGINE_SIZE(ZYMLogitBias, 8);

ZYM_ENGINE_FIELD(ZYMSampling, structSize, 0);
ZYM_ENGINE_FIELD(ZYMSampling, temperature, 4);
ZYM_ENGINE_FIELD(ZYMSampling, topK, 8);
ZYM_ENGINE_FIELD(ZYMSampling, topP, 12);
ZYM_ENGINE_FIELD(ZYMSampling, minP, 16);
ZYM_ENGINE_FIELD(ZYMSampling, presencePenalty, 20);
ZYM_ENGINE_FIELD(ZYMSampling, frequencyPenalty, 24);
ZYM_ENGINE_FIELD(ZYMSampling, repetitionPenalty, 28);
ZYM_ENGINE_FIELD(ZYMSampling, repetitionWindow, 32);
ZYM_ENGINE_FIELD(ZYMSampling, reserved, 36);
ZYM_ENGINE_FIELD(ZYMSampling, biases, 40);
ZYM_ENGINE_FIELD(ZYMSampling, biasCount, 48);
ZYM_ENGINE_SIZE(ZYMSampling, 56);

ZYM_ENGINE_FIELD(ZYMReplyOptions, structSize, 0);
ZYM_ENGINE_FIELD(ZYMReplyOptions, hasSeed, 4);
ZYM_ENGINE_FIELD(ZYMReplyOptions, seed, 8);
ZYM_ENGINE_FIELD(ZYMReplyOptions, sampling, 16);
ZYM_ENGINE_FIELD(ZYMReplyOptions, maxTokens, 24);
ZYM_ENGINE_FIELD(ZYMReplyOptions, thinkingTokens, 32);
ZYM_ENGINE_FIELD(ZYMReplyOptions, stops, 40);
ZYM_ENGINE_FIELD(ZYMReplyOptions, stopCount, 48);
ZYM_ENGINE_FIELD(ZYMReplyOptions, tellsTokens, 56);
ZYM_ENGINE_FIELD(ZYMReplyOptions, bestTokens, 60);
ZYM_ENGINE_FIELD(ZYMReplyOptions, withoutGuesses, 64);
ZYM_ENGINE_FIELD(ZYMReplyOptions, reserved, 68);
ZYM_ENGINE_SIZE(ZYMReplyOptions, 72);

ZYM_ENGINE_FIELD(ZYMTokenProbability, id, 0);
ZYM_ENGINE_FIELD(ZYMTokenProbability, reserved, 4);
ZYM_ENGINE_FIELD(ZYMTokenProbability, logProbability, 8);
ZYM_ENGINE_SIZE(ZYMTokenProbability, 16);

ZYM_ENGINE_FIELD(ZYMEvent, structSize, 0);
ZYM_ENGINE_FIELD(ZYMEvent, kind, 4);
ZYM_ENGINE_FIELD(ZYMEvent, text, 8);
ZYM_ENGINE_FIELD(ZYMEvent, name, 24);
ZYM_ENGINE_FIELD(ZYMEvent, json, 40);
ZYM_ENGINE_FIELD(ZYMEvent, done, 56);
ZYM_ENGINE_FIELD(ZYMEvent, total, 64);
ZYM_ENGINE_FIELD(ZYMEvent, token, 72);
ZYM_ENGINE_FIELD(ZYMEvent, best, 88);
ZYM_ENGINE_FIELD(ZYMEvent, bestCount, 96);
ZYM_ENGINE_SIZE(ZYMEvent, 104);

ZYM_ENGINE_FIELD(ZYMReply, structSize, 0);
ZYM_ENGINE_FIELD(ZYMReply, end, 4);
ZYM_ENGINE_FIELD(ZYMReply, message, 8);
ZYM_ENGINE_FIELD(ZYMReply, stopString, 16);
ZYM_ENGINE_FIELD(ZYMReply, hasIncompleteCall, 32);
ZYM_ENGINE_FIELD(ZYMReply, reserved, 36);
ZYM_ENGINE_FIELD(ZYMReply, promptTokens, 40);
ZYM_ENGINE_FIELD(ZYMReply, reusedTokens, 48);
ZYM_ENGINE_FIELD(ZYMReply, tokens, 56);
ZYM_ENGINE_FIELD(ZYMReply, seed, 64);
ZYM_ENGINE_SIZE(ZYMReply, 72);

#undef ZYM_ENGINE_FIELD
#undef ZYM_ENGINE_SIZE
#undef ZYM_ENGINE_ASSERT

#ifdef __cplusplus
}
#endif

#endif /* ZYM_ENGINE_H */
