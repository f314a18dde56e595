#include "convert/tokenizer_json.h"

#include <algorithm>
#include <optional>
#include <string>

#include "container/zym2_format.h"
#include "convert/errors.h"
#include "convert/json_reader.h"

namespace kel::convert {

namespace {

using nlohmann::json;

// Ids may leave gaps, of padding rows at most; a wild id must not make the list huge.
constexpr uint64_t kMaxUnusedIds = 65536;

class TokenList {
 public:
  TokenList(uint64_t entries, Vocabulary& vocabulary)
      : limit(std::min<uint64_t>(entries + kMaxUnusedIds, zym2::kMaxTokenizerCount)),
        out(vocabulary) {}

  Status add(const std::string& text, const json& idValue, int32_t type) {
    const std::optional<uint64_t> id = jsonUnsigned(idValue);
    if (!id || *id >= limit) {
      return malformed("tokenizer.json: the id of \"{}\" is not in range", printable(text));
    }
    growTo(*id + 1);
    std::string& token = out.tokens[*id];
    // An added token may stand in the vocabulary as well; then both are the same.
    if (out.types[*id] != kUnusedToken && token != text) {
      return malformed("tokenizer.json: \"{}\" and \"{}\" have the same id {}", printable(token),
                       printable(text), *id);
    }
    token = text;
    out.types[*id] = type;
    return Status::success();
  }

 private:
  void growTo(uint64_t count) {
    while (out.tokens.size() < count) {
      out.tokens.push_back(fmt::format("[PAD{}]", out.tokens.size()));
      out.types.push_back(kUnusedToken);
    }
  }

  uint64_t limit;
  Vocabulary& out;
};

// The runtime's hosts write text in its composed form, and do nothing else to it.
bool keepsText(const json& normalizer) {
  const json* type = jsonMember(normalizer, "type");
  if (normalizer.is_null() || (type != nullptr && *type == "NFC")) {
    return true;
  }
  const json* steps = jsonMember(normalizer, "normalizers");
  return type != nullptr && *type == "Sequence" && steps != nullptr && steps->is_array() &&
         std::all_of(steps->begin(), steps->end(), keepsText);
}

// normalizer: null, or one that keeps text.
bool composes(const json& normalizer) {
  const json* type = jsonMember(normalizer, "type");
  const json* steps = jsonMember(normalizer, "normalizers");
  return (type != nullptr && *type == "NFC") ||
         (steps != nullptr && std::any_of(steps->begin(), steps->end(), composes));
}

// A space that is put in front of every text is no matter of how text is cut.
bool addsPrefixSpace(const json& preTokenizer) {
  const json* steps = jsonMember(preTokenizer, "pretokenizers");
  if (steps != nullptr && steps->is_array()) {
    return std::any_of(steps->begin(), steps->end(), addsPrefixSpace);
  }
  const json* adds = jsonMember(preTokenizer, "add_prefix_space");
  return adds != nullptr && *adds == true;
}

// What would turn the same text into other tokens than the runtime's.
Status checkTextHandling(const json& file, const json& model) {
  const json* normalizer = jsonMember(file, "normalizer");
  if (normalizer != nullptr && !keepsText(*normalizer)) {
    const json* type = jsonMember(*normalizer, "type");
    return misfit("tokenizer.json: the normalizer",
                  printable(type == nullptr ? normalizer->dump() : type->dump()),
                  "\"NFC\", or none");
  }
  const json* preTokenizer = jsonMember(file, "pre_tokenizer");
  if (preTokenizer != nullptr && addsPrefixSpace(*preTokenizer)) {
    return misfit("tokenizer.json: add_prefix_space", true, false);
  }
  const json* whole = jsonMember(model, "ignore_merges");
  if (whole != nullptr && *whole == true) {
    return misfit("tokenizer.json: model.ignore_merges", true, false);
  }
  for (const char* name : {"continuing_subword_prefix", "end_of_word_suffix"}) {
    const json* affix = jsonMember(model, name);
    const bool isNone = affix == nullptr || affix->is_null() ||
                        (affix->is_string() && affix->get_ref<const std::string&>().empty());
    if (!isNone) {
      return misfit(fmt::format("tokenizer.json: model.{}", name), printable(affix->dump()),
                    "none");
    }
  }
  return Status::success();
}

Status readTokens(const json& vocab, const json* added, Vocabulary& out) {
  if (added != nullptr && !added->is_array()) {
    return malformed("tokenizer.json: added_tokens is not a list");
  }
  TokenList list(vocab.size() + (added == nullptr ? 0 : added->size()), out);
  for (const auto& [text, id] : vocab.items()) {
    Status status = list.add(text, id, kNormalToken);
    if (!status.ok()) {
      return status;
    }
  }
  if (added == nullptr) {
    return Status::success();
  }
  for (const json& token : *added) {
    const json* content = jsonMember(token, "content");
    const json* id = jsonMember(token, "id");
    if (content == nullptr || !content->is_string() || id == nullptr) {
      return malformed("tokenizer.json: an added token lacks its content or id");
    }
    Status status = list.add(content->get_ref<const std::string&>(), *id, kControlToken);
    if (!status.ok()) {
      return status;
    }
  }
  return Status::success();
}

// "left right", or the pair of both.
std::optional<std::string> mergeRule(const json& rule) {
  if (rule.is_string()) {
    const auto& text = rule.get_ref<const std::string&>();
    if (std::count(text.begin(), text.end(), ' ') != 1) {
      return std::nullopt;
    }
    return text;
  }
  if (!rule.is_array() || rule.size() != 2 || !rule[0].is_string() || !rule[1].is_string()) {
    return std::nullopt;
  }
  return rule[0].get_ref<const std::string&>() + " " + rule[1].get_ref<const std::string&>();
}

}  // namespace

Status parseTokenizerJson(std::string_view text, Vocabulary& out, std::string& normalizer) {
  json file;
  Status status = parseJson(text, "tokenizer.json", file);
  if (!status.ok()) {
    return status;
  }
  const json* model = jsonMember(file, "model");
  const json* type = model == nullptr ? nullptr : jsonMember(*model, "type");
  const json* vocab = model == nullptr ? nullptr : jsonMember(*model, "vocab");
  const json* merges = model == nullptr ? nullptr : jsonMember(*model, "merges");
  if (vocab == nullptr || !vocab->is_object() || merges == nullptr || !merges->is_array()) {
    return malformed("tokenizer.json: no model with vocab and merges");
  }
  if (type != nullptr && *type != "BPE") {
    return misfit("tokenizer.json: model.type", printable(type->dump()), "\"BPE\"");
  }
  status = checkTextHandling(file, *model);
  if (!status.ok()) {
    return status;
  }
  const json* stated = jsonMember(file, "normalizer");
  normalizer = stated != nullptr && composes(*stated) ? "nfc" : "";
  status = readTokens(*vocab, jsonMember(file, "added_tokens"), out);
  if (!status.ok()) {
    return status;
  }
  out.merges.reserve(merges->size());
  for (const json& rule : *merges) {
    std::optional<std::string> merge = mergeRule(rule);
    if (!merge) {
      return malformed("tokenizer.json: merge rule {} is not a pair", out.merges.size());
    }
    out.merges.push_back(std::move(*merge));
  }
  return Status::success();
}

}  // namespace kel::convert
