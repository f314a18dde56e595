// What the interfaces of `zym serve` are given to answer with, and the limits that they hold
// requests to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "container/status.h"
#include "engine/model.h"
#include "engine/reply_constraint.h"
#include "host/serve/generation.h"

namespace zym {

struct ApiLimits {
  size_t depth = 64;            // brackets of a body that are open at once
  size_t messages = 4096;       // of a conversation, and items of an input
  size_t parts = 4096;          // of a content
  size_t tools = 256;           // and calls of a message
  size_t toolsBytes = 1 << 20;  // of all tools
  size_t schemaDepth = 32;      // of the parameters of a tool and of a form that is asked for
  size_t schemaBytes = 256 << 10;
  size_t nameBytes = 128;  // of a tool
  size_t stops = 16;
  size_t stopBytes = 256;  // of each; an automaton takes a kilobyte a byte
  size_t logitBiases = 512;
  size_t tokenIds = 1 << 20;  // of a prompt, or to be turned into text
  size_t choices = 4;
  size_t topLogProbabilities = 20;
};

// The form that an answer must have.
struct ConstraintRequest {
  enum class Form : uint8_t {
    Object,  // any JSON object
    Schema,  // JSON that the schema allows
    Calls    // a call of one of the tools, or several
  };

  Form form = Form::Object;
  std::string schema = {};               // JSON; of Form::Schema
  std::vector<engine::Tool> tools = {};  // of Form::Calls: those that may be called
  bool followsReasoning = false;         // line feeds may stand between the two
  bool allowsSeveral = true;             // of Form::Calls
};

using ConstraintMaker = std::function<std::unique_ptr<engine::ReplyConstraint>()>;

struct ApiServices {
  std::shared_ptr<const engine::Model> model;
  GenerationQueue* queue = nullptr;  // outlives every answer
  uint64_t positions = 0;            // of a conversation: prompt and reply have room in them
  std::vector<std::string> names;    // that requests call the model by; the first is its own
  int64_t created = 0;               // the model, in seconds since 1970
  std::string fingerprint;           // of program and model: as long as it stays, seeds hold

  // Invalid, with a message that names what of it is not supported.
  std::function<kel::Status(const ConstraintRequest& request, ConstraintMaker& out)> constrain;

  // Any thread.
  std::function<uint64_t()> random;  // for seeds and ids
  std::function<int64_t()> now;      // seconds since 1970

  ApiLimits limits = {};
};

}  // namespace zym
