// The log-probabilities of an answer's tokens, kept apart from those of reasoning, calls and
// framing.
#pragma once

#include <string>
#include <vector>

#include "engine/log_probabilities.h"
#include "engine/reply_parser.h"
#include "host/serve/api_output.h"
#include "host/serve/served_model.h"

namespace zym {

// One reply. Tokens are told before the events of their text.
class AnswerTokens {
 public:
  AnswerTokens(const ServedModel& servedModel, bool beginsWithReasoning)
      : served(servedModel), inReasoning(beginsWithReasoning) {}

  void add(const engine::LogProbabilities& token);

  // To be called with every event; the tokens behind it: none unless it is answer text.
  std::vector<engine::LogProbabilities> take(const engine::ReplyEvent& event);

 private:
  const ServedModel& served;
  bool inReasoning;
  bool atFront = true;  // line feeds are framing there
  std::vector<engine::LogProbabilities> pending;
};

// As chat and responses word them: an array of objects with token, logprob, bytes and
// top_logprobs.
Json chatLogProbabilities(const ServedModel& served,
                          const std::vector<engine::LogProbabilities>& tokens);

// In the words of completions: parallel arrays. textOffset: characters before the first; is moved
// behind the last.
Json completionLogProbabilities(const ServedModel& served,
                                const std::vector<engine::LogProbabilities>& tokens,
                                size_t& textOffset);

}  // namespace zym
