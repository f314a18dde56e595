// zym tokenize: the ids and pieces that a model reads a text as, and the text of ids.
#include <fmt/core.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "container/zym2_reader.h"
#include "engine/text_decoder.h"
#include "engine/text_encoder.h"
#include "engine/utf8_text.h"
#include "host/chat/engine.h"
#include "host/chat/open_failure.h"
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
  bool pluginRules = false;
  bool json = false;
};

struct Vocabulary {
  std::unique_ptr<TextMap> map;  // for a runtime library's encoder, which is the tokenizer's
  kel::Tokenizer tokenizer;
  engine::TextForm form = engine::TextForm::Composed;
};

Status readForm(const std::string& path, engine::TextForm& form) {
  kel::ZYM2Reader reader;
  if (const Status opened = reader.open(path.c_str()); !opened.ok()) {
    return openFailure(path, opened);
  }
  const Status status = engine::readTextForm(reader, form);
  return status.ok() ? status : Status{status.code, path + ": " + status.message};
}

Status openVocabulary(const std::string& path, Vocabulary& vocabulary) {
  kel::TokenizerData tables;
  Status status = checkInputFile(path);
  if (status.ok()) {
    status = readVocabulary(path, tables);
  }
  if (status.ok()) {
    status = readForm(path, vocabulary.form);
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

// The ids that the program's own engine reads.
std::vector<int32_t> engineIds(const Vocabulary& vocabulary, const std::string& input, bool raw) {
  const kel::Tokenizer& tokenizer = vocabulary.tokenizer;
  const engine::TextEncoder encoder(tokenizer, vocabulary.form);
  std::vector<int32_t> ids;
  if (tokenizer.bosId >= 0) {
    ids.push_back(tokenizer.bosId);
  }
  if (raw) {
    encoder.encodeWithSpecials(input, ids);
  } else {
    encoder.encode(input, ids);
  }
  return ids;
}

Status encode(const Vocabulary& vocabulary, const TokenizeOptions& options,
              const std::string& input, std::vector<int32_t>& ids) {
  if (!options.pluginRules) {
    ids = engineIds(vocabulary, input, options.raw);
    return Status::success();
  }
  std::string text;
  const Status status = vocabulary.map->toVocabulary(input, options.raw, text);
  return status.ok() ? vocabulary.tokenizer.encode(text, ids, true) : status;
}

Status showTokens(const Vocabulary& vocabulary, const TokenizeOptions& options,
                  const std::string& input) {
  if (!engine::isValid(input)) {
    remark(
        options.pluginRules
            ? "(the text is not valid UTF-8; bytes that belong to no character are read one by one)"
            : "(the text is not valid UTF-8; bytes that belong to no character are read as "
              "U+FFFD)");
  }
  std::vector<int32_t> ids;
  Status status = encode(vocabulary, options, input, ids);
  if (!status.ok()) {
    return status;
  }
  // What a token adds to a text, by itself: U+FFFD for part of a character.
  std::vector<std::string> pieces;
  engine::TextDecoder decoder(vocabulary.tokenizer, engine::TextDecoder::Specials::Shown);
  for (const int32_t id : ids) {
    std::string piece = decoder.feed(id);
    pieces.push_back(piece + decoder.finish());
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
  if (!status.ok()) {
    return status;
  }
  engine::TextDecoder decoder(vocabulary.tokenizer, engine::TextDecoder::Specials::Shown);
  std::string text;
  for (const int32_t id : ids) {
    text += decoder.feed(id);
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

void addTokenize(const Command& program, Action& action) {
  auto options = std::make_shared<TokenizeOptions>();
  const Command command =
      program.addCommand("tokenize", "Show the tokens of a text, or the text of tokens");
  const auto model = addModelArgument(command);
  const Option text =
      command.addOption("TEXT", options->text, "The text; \"-\": read it from standard input");
  text.typeName("");
  const Option more = command.addOption("ID", options->moreIds, "With --ids: further ids");
  more.typeName("");
  const Option file = command.addOption("-f,--file", options->file, "Read the text from a file")
                          .typeName("FILE")
                          .excludes(text);
  const Option ids =
      command.addFlag("--ids", options->ids, "The text is ids: show what they spell");
  command
      .addFlag("--plugin-rules", options->pluginRules,
               "The tokens that a runtime library reads, by the container format's rules")
      .excludes(ids);
  command.addFlag("--json", options->json, "One JSON object");
  addRaw(command, options->raw);
  addExamples(command,
              "  zym tokenize model.zym 'Hello there'\n"
              "  zym tokenize model.zym --raw '<|im_start|>user'\n"
              "  zym tokenize model.zym --plugin-rules -f main.cpp\n"
              "  zym tokenize model.zym -f story.txt --json\n"
              "  zym tokenize model.zym --ids 9707 1052");
  command.onCall([options, model, text, more, file, &action] {
    if (text.count() + file.count() == 0) {
      askFor("a text (TEXT, -f FILE or -)");
    }
    if (more.count() > 0 && !options->ids) {
      refuseUse("\"" + options->moreIds.front() +
                "\" is one word too many; put the whole text in quotes");
    }
    action = onModel(model, options->model, [options] { return tokenize(*options); });
  });
}

}  // namespace zym
