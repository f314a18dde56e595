/* Compiled as C11 and, through engine_header.cpp, as C++20: the header needs nothing before it, its
 * layout assertions hold in both languages, and it stands beside that of the plugin. */
#include "zym/engine.h"

#include "zym/plugin.h"

size_t zym_header_record_bytes(void);
size_t zym_header_record_bytes(void) {
  return sizeof(ZYMModelFacts) + sizeof(ZYMToolCall) + sizeof(ZYMMessage) +
         sizeof(ZYMConversation) + sizeof(ZYMContextOptions) + sizeof(ZYMStatistics) +
         sizeof(ZYMSampling) + sizeof(ZYMReplyOptions) + sizeof(ZYMEvent) + sizeof(ZYMReply);
}

size_t zym_header_text_bytes(const char* string);
size_t zym_header_text_bytes(const char* string) {
  return zym_text(string).size;
}
