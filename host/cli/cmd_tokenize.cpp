// zym tokenize: the ids and pieces that a model reads a text as.
#include <fmt/format.h>

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "host/chat/text_map.h"
#include "host/cli/commands.h"
#include "host/cli/model_argument.h"
#include "host/terminal/terminal.h"
#include "host/terminal/utf8.h"
#include "tokenizer/tokenizer.h"

namespace zym {
namespace {

using kel::Status;

struct TokenizeOptions {
  std::string model;
  std::string text;
  bool raw = false;
  bool json = false;
};

Status encode(const TokenizeOptions& options, std::vector<int32_t>& ids,
              std::vector<std::string>& pieces) {
  kel::TokenizerData tables;
  Status status = checkInputFile(options.model);
  if (status.ok()) {
    status = readVocabulary(options.model, tables);
  }
  if (!status.ok()) {
    return status;
  }
  const TextMap map(tables);
  std::string text;
  status = map.toVocabulary(options.text, options.raw, text);
  if (!status.ok()) {
    return status;
  }
  kel::Tokenizer tokenizer;
  status = tokenizer.load(std::move(tables));
  if (status.ok()) {
    status = tokenizer.encode(text, ids, true);
  }
  for (const int32_t id : ids) {
    std::string piece;
    if (status.ok()) {
      status = tokenizer.tokenToString(id, piece);
    }
    PieceDecoder decoder(map.way());
    std::string shown = decoder.feed(piece);
    pieces.push_back(shown + decoder.finish());
  }
  return status;
}

int tokenize(const TokenizeOptions& options) {
  std::vector<int32_t> ids;
  std::vector<std::string> pieces;
  const Status status = encode(options, ids, pieces);
  if (!status.ok()) {
    complain(status.message);
    return 1;
  }
  using Json = nlohmann::ordered_json;
  if (options.json) {
    fmt::print("{}\n", Json{{"ids", ids}, {"pieces", pieces}}.dump());
    return 0;
  }
  for (size_t i = 0; i < ids.size(); ++i) {
    fmt::print("{:>7}  {}\n", ids[i], Json(pieces[i]).dump());
  }
  return 0;
}

}  // namespace

void addTokenize(CLI::App& program, Action& action) {
  auto options = std::make_shared<TokenizeOptions>();
  CLI::App* command = program.add_subcommand("tokenize", "Show the tokens of a text");
  const auto model = addModelArgument(*command);
  command->add_option("TEXT", options->text, "The text")->required();
  command->add_flag("--json", options->json, "Ids and pieces as one JSON object");
  addRaw(*command, options->raw);
  addExamples(*command,
              "  zym tokenize model.zym 'Hello there'\n"
              "  zym tokenize model.zym --raw '<|im_start|>user'");
  command->callback([options, model, &action] {
    action = onModel(model, options->model, [options] { return tokenize(*options); });
  });
}

}  // namespace zym
