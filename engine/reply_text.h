// The text of a reply while its tokens come: taken apart, told and collected.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "engine/model.h"
#include "engine/reply.h"
#include "engine/reply_parser.h"
#include "engine/stop_strings.h"
#include "engine/text_decoder.h"

namespace engine {

// Of one reply; one thread at a time. What it is made with is used as long as it lives.
class ReplyText {
 public:
  ReplyText(const Model& model, bool opensReasoning, std::span<const Tool> tools,
            const ReplyOptions& options, const ReplySinks& replySinks, Reply& result);

  bool inReasoning() const { return parser.inReasoning(); }

  // False where a stop string has come.
  bool add(int32_t id);

  // Once, whatever ended the reply: what was held back belongs to it.
  void finish();

 private:
  bool isMark(int32_t id) const;
  void addText(const std::string& text);
  void deliver();
  void take(ReplyEvent event);
  void tell(ReplyEvent::Kind kind, const std::string& text);

  const kel::Tokenizer& tokenizer;
  TextDecoder decoder;
  ReplyParser parser;
  StopStrings stops;
  const std::vector<std::string>& stopStrings;
  const ReplySinks& sinks;
  Reply& reply;
  std::vector<ReplyEvent> events;
};

}  // namespace engine
