// Text to ids and back.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "capi/border.h"
#include "capi/handles.h"
#include "capi/records.h"
#include "engine/chat_tokens.h"
#include "engine/text_encoder.h"

namespace {

using capi::Failure;
using engine::TextDecoder;

void giveIds(const std::vector<int32_t>& found, int32_t* ids, size_t capacity, size_t& count) {
  count = found.size();
  if (found.size() > capacity) {
    throw Failure(ZYM_ERROR_CAPACITY,
                  std::to_string(found.size()) + " ids, and room for " + std::to_string(capacity));
  }
  std::copy(found.begin(), found.end(), ids);
}

TextDecoder::Specials specialsOf(uint32_t showsSpecials) {
  return showsSpecials != 0 ? TextDecoder::Specials::Shown : TextDecoder::Specials::Hidden;
}

void checkId(const engine::Model& model, int32_t id) {
  if (id < 0 || static_cast<size_t>(id) >= model.tokenizer().tokens.size()) {
    throw Failure(ZYM_ERROR_ARGUMENT, "there is no token " + std::to_string(id));
  }
}

}  // namespace

ZYMStatus zym_model_tokenize(const ZYMModel* model, ZYMText text, uint32_t readsMarks, int32_t* ids,
                             size_t capacity, size_t* count, char* error, size_t errorBytes) {
  return capi::guarded({error, errorBytes}, [&] {
    const engine::TextEncoder& encoder = capi::required(model, "model").model->textEncoder();
    capi::required(count, "count");
    capi::arrayOf(ids, capacity, "ids");
    const std::string content = capi::textOf(text, "text");
    std::vector<int32_t> found;
    if (readsMarks != 0) {
      encoder.encodeWithSpecials(content, found);
    } else {
      encoder.encode(content, found);
    }
    giveIds(found, ids, capacity, *count);
  });
}

ZYMStatus zym_model_tokenize_conversation(const ZYMModel* model,
                                          const ZYMConversation* conversation, int32_t* ids,
                                          size_t capacity, size_t* count, char* error,
                                          size_t errorBytes) {
  return capi::guarded({error, errorBytes}, [&] {
    const engine::Model& shared = *capi::required(model, "model").model;
    capi::required(count, "count");
    capi::arrayOf(ids, capacity, "ids");
    const capi::Conversation read = capi::readConversation(conversation, shared);
    engine::ChatTokens chat;
    capi::check(engine::encodeChat(shared, read.request(), chat), capi::Work::Arguments);
    std::vector<int32_t> found;
    for (const engine::Token& token : chat.tokens) {
      found.push_back(token.id);
    }
    giveIds(found, ids, capacity, *count);
  });
}

ZYMStatus zym_model_detokenize(const ZYMModel* model, const int32_t* ids, size_t count,
                               uint32_t showsSpecials, char* buffer, size_t capacity, size_t* size,
                               char* error, size_t errorBytes) {
  return capi::guarded({error, errorBytes}, [&] {
    const engine::Model& shared = *capi::required(model, "model").model;
    capi::required(size, "size");
    capi::arrayOf(buffer, capacity, "buffer");
    TextDecoder decoder(shared.tokenizer(), specialsOf(showsSpecials));
    std::string text;
    for (const int32_t id : capi::arrayOf(ids, count, "ids")) {
      checkId(shared, id);
      text += decoder.feed(id);
    }
    text += decoder.finish();
    *size = text.size();
    if (text.size() >= capacity) {
      throw Failure(ZYM_ERROR_CAPACITY, std::to_string(text.size()) + " bytes and a NUL, and " +
                                            "room for " + std::to_string(capacity));
    }
    std::copy_n(text.c_str(), text.size() + 1, buffer);
  });
}

ZYMStatus zym_decoder_create(const ZYMModel* model, uint32_t showsSpecials, ZYMDecoder** decoder) {
  return capi::guarded({}, [&] {
    ZYMDecoder*& out = capi::required(decoder, "decoder");
    out = nullptr;
    out = new ZYMDecoder(capi::required(model, "model").model, specialsOf(showsSpecials));
  });
}

ZYMStatus zym_decoder_feed(ZYMDecoder* decoder, int32_t id, ZYMText* text) {
  return capi::guarded({}, [&] {
    ZYMDecoder& handle = capi::required(decoder, "decoder");
    capi::required(text, "text");
    checkId(*handle.model, id);
    handle.text = handle.decoder.feed(id);
    *text = capi::textOut(handle.text);
  });
}

ZYMStatus zym_decoder_finish(ZYMDecoder* decoder, ZYMText* text) {
  return capi::guarded({}, [&] {
    ZYMDecoder& handle = capi::required(decoder, "decoder");
    capi::required(text, "text");
    handle.text = handle.decoder.finish();
    *text = capi::textOut(handle.text);
  });
}

void zym_decoder_destroy(ZYMDecoder* decoder) {
  delete decoder;
}
