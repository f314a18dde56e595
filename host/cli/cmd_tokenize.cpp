// zym tokenize: the ids and pieces that a model reads a text as, and the text of ids.
#include <fmt/format.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "host/chat/text_map.h"
#include "host/cli/commands.h"
#include "host/cli/model_argument.h"
#include "host/cli/text_source.h"
#include "host/cli/token_ids.h"
#include "host/terminal/terminal.h"
#include "host/terminal/utf8.h"
#include "tokenizer/tokenizer.h"

namespace zym {
namespace {

using kel::Status;
using Json = nlohmann::ordered_json;

struct TokenizeOptions {
  std::string model;
  std::string text;  // "-": standard input
  std::vector<std::string> moreIds;
  std::string file;  // instead of text
  bool ids = false;  // the text is ids
  bool raw = false;
  bool json = false;
};

struct Vocabulary {
  std::unique_ptr<TextMap> map;
  kel::Tokenizer tokenizer;
};

Status openVocabulary(const std::string& path, Vocabulary& vocabulary) {
  kel::TokenizerData tables;
  Status status = checkInputFile(path);
  if (status.ok()) {
    status = readVocabulary(path, tables);
  }
  if (!status.ok()) {
    return status;
  }
  vocabulary.map = std::make_unique<TextMap>(tables);
  return vocabulary.tokenizer.load(std::move(tables));
}

Status readInput(const TokenizeOptions& options, std::string& text) {
  if (!options.file.empty()) {
    return readTextFile(options.file, text);
  }
  if (options.text == "-") {
    return readStandardInput(text);
  }
  text = options.text;
  for (const std::string& more : options.moreIds) {
    text += ' ' + more;
  }
  return Status::success();
}

// What a token adds to a text, by itself: U+FFFD for part of a character.
std::string pieceText(const TextMap& map, const std::string& token) {
  PieceDecoder decoder(map.way());
  std::string text = decoder.feed(token);
  return text + decoder.finish();
}

Status showTokens(const Vocabulary& vocabulary, const TokenizeOptions& options,
                  const std::string& input) {
  if (replaceInvalid(input) != input) {
    remark("(the text is not valid UTF-8; bytes that belong to no character are read one by one)");
  }
  std::string text;
  std::vector<int32_t> ids;
  Status status = vocabulary.map->toVocabulary(input, options.raw, text);
  if (status.ok()) {
    status = vocabulary.tokenizer.encode(text, ids, true);
  }
  std::vector<std::string> pieces;
  for (size_t i = 0; status.ok() && i < ids.size(); ++i) {
    std::string token;
    status = vocabulary.tokenizer.tokenToString(ids[i], token);
    pieces.push_back(pieceText(*vocabulary.map, token));
  }
  if (!status.ok()) {
    return status;
  }
  if (options.json) {
    fmt::print("{}\n", Json{{"ids", ids}, {"pieces", pieces}}.dump());
    return status;
  }
  for (size_t i = 0; i < ids.size(); ++i) {
    fmt::print("{:>7}  {}\n", ids[i], Json(pieces[i]).dump());
  }
  return status;
}

Status showText(const Vocabulary& vocabulary, const TokenizeOptions& options,
                const std::string& input) {
  std::vector<int32_t> ids;
  Status status = parseTokenIds(input, vocabulary.tokenizer.tokens.size(), ids);
  PieceDecoder decoder(vocabulary.map->way());
  std::string text;
  for (size_t i = 0; status.ok() && i < ids.size(); ++i) {
    std::string token;
    status = vocabulary.tokenizer.tokenToString(ids[i], token);
    text += decoder.feed(token);
  }
  if (!status.ok()) {
    return status;
  }
  text += decoder.finish();
  if (options.json) {
    fmt::print("{}\n", Json{{"ids", ids}, {"text", text}}.dump());
  } else {
    fmt::print("{}\n", isTerminal(1) ? withoutControls(text) : text);
  }
  return status;
}

int tokenize(const TokenizeOptions& options) {
  std::string input;
  Vocabulary vocabulary;
  Status status = readInput(options, input);
  if (status.ok()) {
    status = openVocabulary(options.model, vocabulary);
  }
  if (status.ok()) {
    status =
        options.ids ? showText(vocabulary, options, input) : showTokens(vocabulary, options, input);
  }
  if (!status.ok()) {
    complain(status.message);
    return 1;
  }
  return 0;
}

}  // namespace

void addTokenize(CLI::App& program, Action& action) {
  auto options = std::make_shared<TokenizeOptions>();
  CLI::App* command =
      program.add_subcommand("tokenize", "Show the tokens of a text, or the text of tokens");
  const auto model = addModelArgument(*command);
  auto* text =
      command->add_option("TEXT", options->text, "The text; \"-\": read it from standard input");
  text->type_name("");
  auto* more = command->add_option("ID", options->moreIds, "With --ids: further ids");
  more->type_name("");
  auto* file = command->add_option("-f,--file", options->file, "Read the text from a file")
                   ->type_name("FILE")
                   ->excludes(text);
  command->add_flag("--ids", options->ids, "The text is ids: show what they spell");
  command->add_flag("--json", options->json, "One JSON object");
  addRaw(*command, options->raw);
  addExamples(*command,
              "  zym tokenize model.zym 'Hello there'\n"
              "  zym tokenize model.zym --raw '<|im_start|>user'\n"
              "  zym tokenize model.zym -f story.txt --json\n"
              "  zym tokenize model.zym --ids 9707 1052");
  command->callback([options, model, text, more, file, &action] {
    if (text->count() + file->count() == 0) {
      throw CLI::RequiredError("a text (TEXT, -f FILE or -)");
    }
    if (more->count() > 0 && !options->ids) {
      throw CLI::ValidationError("\"" + options->moreIds.front() +
                                 "\" is one word too many; put the whole text in quotes");
    }
    action = onModel(model, options->model, [options] { return tokenize(*options); });
  });
}

}  // namespace zym
