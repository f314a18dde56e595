#include "host/serve/tool_fields.h"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

#include "host/serve/call_constraint.h"

namespace zym {

namespace {

using Choice = ToolUse::Choice;

constexpr std::string_view kNameCharacters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.:";

// Models meet tools in this layout, whatever the interface.
std::string wrapped(std::string_view name, std::string_view description,
                    std::string_view parameters) {
  std::string json = R"({"type": "function", "function": {"name": )" + engine::quotedJson(name);
  if (!description.empty()) {
    json += R"(, "description": )" + engine::quotedJson(description);
  }
  if (!parameters.empty()) {
    json += R"(, "parameters": )" + std::string(parameters);
  }
  return json + "}}";
}

// Schemas are followed where a call is required; else that is up to the model, strict or not.
constexpr std::array<std::string_view, 2> kHarmless = {"strict", "cache_control"};

class ToolReader {
 public:
  ToolReader(ToolPlace toolPlace, const ServedModel& servedModel, ApiError& firstError,
             ToolUse& result)
      : place(toolPlace), limits(servedModel.services.limits), error(firstError), use(result) {}

  void read(std::string_view json, const std::string& path) {
    Fields tool(json, path, error);
    if (place != ToolPlace::InputSchema) {
      tool.require("type");
    }
    const std::string type = tool.string("type").value_or("function");
    if (type != "function" && !(place == ToolPlace::InputSchema && type == "custom")) {
      tool.fail("type", fmt::format("\"{}\" is not supported: tools are functions", type));
      return;
    }
    if (place == ToolPlace::Function) {
      tool.require("function");
      Fields function(tool.object("function").value_or("{}"), tool.pathOf("function"), error);
      readFunction(function, "parameters");
      add(std::string(json));
    } else {
      readFunction(tool, place == ToolPlace::InputSchema ? "input_schema" : "parameters");
      add(wrapped(name, description, parameters));
    }
    tool.finish(kHarmless);
  }

 private:
  void readFunction(Fields& function, std::string_view schemaKey) {
    function.require("name");
    name = function.string("name").value_or("");
    if (name.empty() || name.size() > limits.nameBytes ||
        name.find_first_not_of(kNameCharacters) != std::string::npos) {
      function.fail("name",
                    fmt::format("must be 1 to {} letters, digits or \"_\", \"-\", \".\", \":\"",
                                limits.nameBytes));
    }
    if (std::find(use.names.begin(), use.names.end(), name) != use.names.end()) {
      function.fail("name", "is the name of another tool, too");
    }
    description = function.string("description").value_or("");
    parameters = readSchema(function, schemaKey, limits).value_or("");
    function.finish(kHarmless);
  }

  void add(std::string json) {
    if (!error) {
      use.tools.push_back({std::move(json)});
      use.names.push_back(name);
    }
  }

  ToolPlace place;
  const ApiLimits& limits;
  ApiError& error;
  ToolUse& use;
  std::string name;
  std::string description;
  std::string_view parameters;
};

// In the completions' words: a word, or an object that names a function.
void readChoice(Fields& body, ToolPlace place, ToolUse& use) {
  const std::optional<std::string_view> value = body.value("tool_choice");
  if (!value) {
    return;
  }
  if (kindOf(*value) == engine::JsonKind::String) {
    static constexpr std::array<std::string_view, 3> kWords = {"auto", "none", "required"};
    const auto word = body.word("tool_choice", kWords);
    use.choice = word ? static_cast<Choice>(*word) : Choice::Auto;
    return;
  }
  static constexpr std::array<std::string_view, 1> kTypes = {"function"};
  Fields choice(*value, body.pathOf("tool_choice"), body.errors());
  choice.require("type");
  choice.word("type", kTypes);
  use.choice = Choice::Required;
  if (place == ToolPlace::Function) {
    choice.require("function");
    Fields function(choice.object("function").value_or("{}"), choice.pathOf("function"),
                    body.errors());
    function.require("name");
    use.chosen = function.string("name").value_or("");
    use.param = function.pathOf("name");
    function.finish();
  } else {
    choice.require("name");
    use.chosen = choice.string("name").value_or("");
    use.param = choice.pathOf("name");
  }
  choice.finish();
}

// In the words of messages: always an object.
void readMessagesChoice(Fields& body, ToolUse& use) {
  static constexpr std::array<std::string_view, 4> kTypes = {"auto", "none", "any", "tool"};
  enum : size_t { Tool = 3 };
  const std::optional<std::string_view> value = body.object("tool_choice");
  if (!value) {
    return;
  }
  Fields choice(*value, body.pathOf("tool_choice"), body.errors());
  choice.require("type");
  const size_t type = choice.word("type", kTypes).value_or(0);
  use.choice = static_cast<Choice>(std::min<size_t>(type, Tool - 1));
  if (type == Tool) {
    choice.require("name");
    use.chosen = choice.string("name").value_or("");
    use.param = choice.pathOf("name");
  }
  use.allowsSeveral = !choice.boolean("disable_parallel_tool_use").value_or(false);
  choice.finish();
}

void checkChoice(Fields& body, const ToolUse& use) {
  if (use.choice == Choice::Required && use.tools.empty()) {
    body.fail("tool_choice", "asks for a call, but there are no tools");
  } else if (!use.chosen.empty() &&
             std::find(use.names.begin(), use.names.end(), use.chosen) == use.names.end()) {
    failAt(body.errors(), use.param, "is the name of none of the tools");
  }
}

AnswerForm callsForm(const ToolUse& use) {
  ConstraintRequest request{.form = ConstraintRequest::Form::Calls,
                            .allowsSeveral = use.allowsSeveral};
  for (size_t i = 0; i < use.tools.size(); ++i) {
    if (use.chosen.empty() || use.names[i] == use.chosen) {
      request.tools.push_back(use.tools[i]);
    }
  }
  return {std::move(request), use.param};
}

}  // namespace

ToolUse readTools(Fields& body, ToolPlace place, const ServedModel& served) {
  ToolUse use;
  use.param = body.pathOf("tool_choice");
  const size_t mostBytes = served.services.limits.toolsBytes;
  if (body.value("tools").value_or("").size() > mostBytes) {
    body.fail("tools", fmt::format("have more than {} bytes", mostBytes));
  }
  if (const auto tools = body.array("tools", served.services.limits.tools)) {
    if (!tools->empty() && !served.knowsTools) {
      body.fail("tools", "are not known to this model");
    }
    ToolReader reader(place, served, body.errors(), use);
    for (size_t i = 0; i < tools->size() && body.ok(); ++i) {
      reader.read((*tools)[i], fmt::format("{}[{}]", body.pathOf("tools"), i));
    }
  }
  if (place == ToolPlace::InputSchema) {
    readMessagesChoice(body, use);
  } else {
    readChoice(body, place, use);
    use.allowsSeveral = body.boolean("parallel_tool_calls").value_or(true);
  }
  checkChoice(body, use);
  return use;
}

void applyTools(const ToolUse& use, const std::optional<AnswerForm>& form,
                const ServedModel& served, ApiError& error, GenerationRequest& out) {
  // Tools that must not be called stay in the prompt: it goes on to begin as that of other turns.
  out.tools = use.tools;
  const bool mayCall = !use.tools.empty() && use.choice != Choice::None;
  if (use.choice == Choice::Required) {
    if (form) {
      failAt(error, form->param, "cannot be followed in a reply that has to be a call");
    }
    constrain(served, callsForm(use), error, out);
    return;
  }
  if (form) {
    constrain(served, *form, error, out);
  }
  if (!mayCall) {
    if (served.callBegin >= 0) {
      out.options.sampling.logitBias[served.callBegin] = -std::numeric_limits<float>::infinity();
    }
  } else if (form || !use.allowsSeveral) {
    out.makeConstraint = callConstraint(served, use.allowsSeveral, out.makeConstraint);
  }
}

}  // namespace zym
