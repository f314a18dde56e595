// The tools of a request, and how the reply is to use them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/serve/generation.h"
#include "host/serve/json_fields.h"
#include "host/serve/request_fields.h"
#include "host/serve/served_model.h"

namespace zym {

// Where the interfaces keep name and parameters of a tool.
enum class ToolPlace : uint8_t {
  Function,    // chat: in a member "function"
  Parameters,  // responses: in the tool itself
  InputSchema  // messages: likewise, the parameters as "input_schema"
};

struct ToolUse {
  enum class Choice : uint8_t { Auto, None, Required };

  std::vector<engine::Tool> tools;
  std::vector<std::string> names;  // of tools
  Choice choice = Choice::Auto;
  std::string chosen;         // the one that Required means; empty: any
  std::string param;          // path of the choice
  bool allowsSeveral = true;  // calls in one reply
};

// "tools" and "tool_choice", which must name one of them.
ToolUse readTools(Fields& body, ToolPlace place, const ServedModel& served);

// Makes the request use them so; form: that of the answer, which may stand for calls as well.
void applyTools(const ToolUse& use, const std::optional<AnswerForm>& form,
                const ServedModel& served, ApiError& error, GenerationRequest& out);

}  // namespace zym
