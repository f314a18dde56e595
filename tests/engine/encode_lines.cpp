// Token ids of many texts in one run, to be compared with those of another encoder.
//
//   encode_lines CONTAINER [--raw] <TEXTS        a JSON string a line; answers an array of ids a
//   line encode_lines --assigned                      the code points, as ranges, that the tables
//   know
#include <utf8proc.h>

#include <iostream>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "container/zym2_reader.h"
#include "engine/text_encoder.h"
#include "tests/support/json_text.h"
#include "tokenizer/tokenizer.h"

namespace {

using kel::test::parseJson;
using nlohmann::json;

int complain(const std::string& what) {
  std::cerr << "encode_lines: " << what << "\n";
  return 1;
}

bool isAssigned(utf8proc_int32_t code) {
  return utf8proc_category(code) != UTF8PROC_CATEGORY_CN;
}

int printAssigned() {
  constexpr utf8proc_int32_t kEnd = 0x110000;
  json ranges = json::array();
  for (utf8proc_int32_t first = 0; first < kEnd; ++first) {
    if (!isAssigned(first)) {
      continue;
    }
    utf8proc_int32_t last = first;
    while (last + 1 < kEnd && isAssigned(last + 1)) {
      ++last;
    }
    ranges.push_back({first, last});
    first = last;
  }
  std::cout << json{{"unicode", utf8proc_unicode_version()}, {"ranges", ranges}} << "\n";
  return 0;
}

int encodeLines(const std::string& container, bool raw) {
  kel::ZYM2Reader reader;
  kel::Status status = reader.open(container.c_str());
  engine::TextForm form = engine::TextForm::Composed;
  if (status.ok()) {
    status = engine::readTextForm(reader, form);
  }
  kel::TokenizerData tables;
  kel::Tokenizer tokenizer;
  if (status.ok()) {
    status = reader.readTokenizer(tables) ? tokenizer.load(std::move(tables))
                                          : kel::Status::invalid("no tokenizer");
  }
  if (!status.ok()) {
    return complain(status.message);
  }
  const engine::TextEncoder encoder(tokenizer, form);
  std::string line;
  while (std::getline(std::cin, line)) {
    const auto text = parseJson(line).get<std::string>();
    std::vector<int32_t> ids;
    if (raw) {
      encoder.encodeWithSpecials(text, ids);
    } else {
      encoder.encode(text, ids);
    }
    std::cout << json(ids) << "\n";
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  try {
    if (words == std::vector<std::string>{"--assigned"}) {
      return printAssigned();
    }
    const bool raw = words.size() == 2 && words[1] == "--raw";
    if (words.size() == 1 || raw) {
      return encodeLines(words[0], raw);
    }
  } catch (const std::exception& error) {
    return complain(error.what());
  }
  return complain("usage: encode_lines CONTAINER [--raw], or --assigned");
}
