#include "host/serve/call_constraint.h"

#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "engine/chat_format.h"
#include "engine/text_encoder.h"

namespace zym {

namespace {

struct CallTokens {
  int32_t begin = -1;
  int32_t end = -1;
  std::vector<int32_t> turnEnds;
  std::set<int32_t> lineFeeds;  // tokens of nothing else
};

class CallConstraint : public engine::ReplyConstraint {
 public:
  CallConstraint(CallTokens callTokens, bool several,
                 std::unique_ptr<engine::ReplyConstraint> answerForm)
      : tokens(std::move(callTokens)), allowsSeveral(several), form(std::move(answerForm)) {}

  void allowed(engine::TokenMask& mask) override {
    if (isOver) {
      mask.setAll(false);
      for (const int32_t id : tokens.turnEnds) {
        mask.allow(static_cast<size_t>(id));
      }
    } else if (form != nullptr) {
      form->allowed(mask);
      if (atFront && tokens.begin >= 0) {
        mask.allow(static_cast<size_t>(tokens.begin));
      }
    } else {
      mask.setAll(true);
    }
  }

  void accept(int32_t id) override {
    if (atFront && id == tokens.begin) {
      form.reset();
    }
    atFront = atFront && tokens.lineFeeds.contains(id);
    if (form != nullptr) {
      form->accept(id);
    }
    isOver = isOver || (id == tokens.end && !allowsSeveral);
  }

 private:
  CallTokens tokens;
  bool allowsSeveral;
  std::unique_ptr<engine::ReplyConstraint> form;
  bool atFront = true;
  bool isOver = false;
};

}  // namespace

ConstraintMaker callConstraint(const ServedModel& served, bool allowsSeveral,
                               ConstraintMaker form) {
  const kel::Tokenizer& tokenizer = served.model().tokenizer();
  CallTokens tokens{
      .begin = served.callBegin, .end = served.callEnd, .turnEnds = {}, .lineFeeds = {}};
  for (const int32_t id : {tokenizer.tokenToId(engine::kTurnEnd),
                           tokenizer.tokenToId(engine::kTextEnd), tokenizer.eosId}) {
    if (id >= 0) {
      tokens.turnEnds.push_back(id);
    }
  }
  for (const std::string_view text : {"\n", "\n\n"}) {
    std::vector<int32_t> ids;
    served.model().textEncoder().encode(text, ids);
    tokens.lineFeeds.insert(ids.begin(), ids.end());
  }
  return [tokens = std::move(tokens), allowsSeveral, form = std::move(form)] {
    return std::make_unique<CallConstraint>(tokens, allowsSeveral, form ? form() : nullptr);
  };
}

}  // namespace zym
