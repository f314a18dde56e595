// Text to ids and ids to text, over the tables that tokenizer.cpp sets up.
#include "tokenizer/tokenizer.h"
#include "tokenizer/whitespace.h"
#include "tokenizer/word_splitter.h"

namespace kel {

Status Tokenizer::encode(std::string_view text, std::vector<int32_t>& ids, bool addBos) const {
  if (tokens.empty()) {
    return Status::invalid("tokenizer: not loaded");
  }
  ids.clear();
  if (addBos && bosId >= 0) {
    ids.push_back(bosId);
  }
  if (byteLevel) {
    return encodeLines(text, ids);
  }

  std::string escaped;
  escaped.reserve(text.size());
  appendEscaped(text, spaceMarker(), escaped);
  return encodeLines(escaped, ids);
}

// Every newline is a segment of its own: a vocabulary's token for two of them is never used here.
Status Tokenizer::encodeLines(std::string_view text, std::vector<int32_t>& ids) const {
  for (size_t at = 0; at < text.size();) {
    const size_t newline = text.find('\n', at);
    const size_t end = newline == at ? at + 1 : newline;
    const std::string_view segment = text.substr(at, end - at);
    if (Status status = tokenizeSegment(segment, ids); !status.ok()) {
      return status;
    }
    at += segment.size();
  }
  return Status::success();
}

Status Tokenizer::tokenizeSegment(std::string_view segment, std::vector<int32_t>& ids) const {
  if (segment.empty()) {
    return Status::success();
  }
  if (segment.find_first_not_of('\n') == std::string_view::npos) {
    const int32_t id = tokenIndex.find(segment);
    if (id != StringIndex::kAbsent) {
      ids.push_back(id);
      return Status::success();
    }
  }
  for (size_t start = 0; start < segment.size();) {
    const auto match = specialTokenFinder.find(specialTokens, segment, start);
    const std::string_view plain = segment.substr(start, match.begin - start);
    if (Status status = tokenizePlain(plain, ids); !status.ok()) {
      return status;
    }
    if (match.size > 0) {
      ids.push_back(match.id);
    }
    start = match.begin + match.size;
  }
  return Status::success();
}

Status Tokenizer::tokenizePlain(std::string_view text, std::vector<int32_t>& ids) const {
  if (!byteLevel) {
    return tokenizeBpe(text, ids);
  }
  BpeMerger merger(mergeRanks);
  std::string escaped;
  for (const std::string_view word : splitWords(text)) {
    escaped.clear();
    appendEscaped(word, spaceMarker(), escaped);
    appendPiece(merger, escaped, ids);
  }
  return Status::success();
}

Status Tokenizer::tokenizeBpe(std::string_view piece, std::vector<int32_t>& out) const {
  BpeMerger merger(mergeRanks);
  appendPiece(merger, piece, out);
  return Status::success();
}

void Tokenizer::appendPiece(BpeMerger& merger, std::string_view piece,
                            std::vector<int32_t>& out) const {
  const std::vector<size_t>& starts = merger.merge(piece);
  for (size_t i = 0; i + 1 < starts.size(); ++i) {
    const int32_t id = tokenIndex.find(piece.substr(starts[i], starts[i + 1] - starts[i]));
    if (id != StringIndex::kAbsent) {
      out.push_back(id);
    } else if (unkId >= 0) {
      out.push_back(unkId);
    }
  }
}

Status Tokenizer::decode(const std::vector<int32_t>& ids, std::string& text) const {
  if (tokens.empty()) {
    return Status::invalid("tokenizer: not loaded");
  }
  text.clear();
  for (const int32_t id : ids) {
    if (id < 0 || static_cast<size_t>(id) >= tokens.size()) {
      return Status::invalid("tokenizer: token id out of range");
    }
    const auto index = static_cast<size_t>(id);
    if (isSpecial(index)) {
      text += tokens[index];
    } else {
      appendUnescaped(tokens[index], text);
    }
  }
  return Status::success();
}

}  // namespace kel
