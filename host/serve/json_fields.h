// Requests as JSON, read field by field. The first thing that is wrong is kept, with the name of
// the field; what is read after it gives nothing.
//
//   ApiError error;
//   if (isJsonObject(text, 64, error)) {
//     Fields body(text, "", error);
//     const std::optional<double> topP = body.number("top_p", 0, 1);
//     body.finish(kHarmless);
//   }
//   if (error) ...
//
// Nothing is built but what is asked for: values are cut from the text, which stays where it is, so
// keys keep their order and nesting costs no stack.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "engine/json_text.h"
#include "host/serve/api_error.h"

namespace zym {

// One JSON object, nested at most so deep. Repeated keys are no fault: the last one counts.
bool isJsonObject(std::string_view text, size_t mostDepth, ApiError& error);

// Brackets that are open at once, at most.
size_t jsonDepth(std::string_view json);

// Things between the outermost brackets of an array or object: what cutting it would take memory
// for.
size_t jsonItems(std::string_view json);

// By its first character; text is one JSON value.
engine::JsonKind kindOf(std::string_view json);

// One object. A field that is null counts as absent. Functions that return an optional give none
// where the field is absent or wrong, which error then says.
class Fields {
 public:
  // path: of the object; empty for the body.
  Fields(std::string_view object, std::string objectPath, ApiError& firstError);

  bool has(std::string_view key);  // and it is not null

  std::optional<std::string> string(std::string_view key);
  std::optional<bool> boolean(std::string_view key);
  std::optional<double> number(std::string_view key, double lowest, double highest);
  std::optional<int64_t> whole(std::string_view key, int64_t lowest, int64_t highest);
  // The index of the word.
  std::optional<size_t> word(std::string_view key, std::span<const std::string_view> words);

  // As text.
  std::optional<std::string_view> object(std::string_view key);
  std::optional<std::string_view> value(std::string_view key);  // of any kind
  std::optional<std::vector<std::string_view>> array(std::string_view key, size_t most);

  // The field must be there.
  bool require(std::string_view key);
  // The field must not be there, for this reason: "FIELD REASON".
  void refuse(std::string_view key, std::string_view reason);
  // Says what is wrong with a field: "FIELD WHAT".
  void fail(std::string_view key, std::string_view what);

  // All has been asked for but these, which mean nothing here; any other field is wrong.
  void finish(std::span<const std::string_view> harmless = {});

  std::string pathOf(std::string_view key) const;
  bool ok() const { return !error; }
  ApiError& errors() { return error; }

 private:
  const engine::JsonMember* find(std::string_view key);
  std::optional<std::string_view> kind(std::string_view key, engine::JsonKind wanted,
                                       std::string_view what);

  std::string path;
  ApiError& error;
  std::vector<engine::JsonMember> members;
  std::vector<bool> asked;  // of members
};

// Says what is wrong with the value at a path, unless something else is wrong already.
void failAt(ApiError& error, std::string path, std::string_view what);

}  // namespace zym
