// Any text as a JSON Schema, and random texts of what it compiles to: they must never run into a
// dead end, and be JSON that satisfies the schema. First byte: the seed of the choices.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "engine/grammar_machine.h"
#include "engine/json_schema.h"
#include "engine/tool_grammar.h"
#include "tests/support/json_schema_check.h"

namespace {

using engine::Grammar;
using engine::GrammarMachine;
using Places = GrammarMachine::Places;

constexpr size_t kMostBytes = 600;
constexpr size_t kPatience = 40;

void require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

// The bytes that may follow; of those that are no character of ASCII only some are tried.
std::string following(GrammarMachine& machine, const Places& places) {
  std::string bytes;
  Places next;
  for (int byte = 0; byte < 256; ++byte) {
    const GrammarMachine::Bookmark before = machine.bookmark();
    machine.step(places, static_cast<uint8_t>(byte), next);
    if (!next.empty()) {
      bytes += static_cast<char>(byte);
    }
    machine.forgetSince(before);
  }
  return bytes;
}

// Nothing where the text does not come to an end.
std::optional<std::string> randomText(const Grammar& grammar, std::mt19937& random) {
  GrammarMachine machine(grammar, true);
  Places places = machine.begin(false);
  Places next;
  std::string text;
  while (text.size() < kMostBytes) {
    const bool hurries = text.size() > kPatience;
    if (machine.isComplete(places) && (hurries || random() % 4 == 0)) {
      return text;
    }
    const std::string bytes = following(machine, places);
    if (bytes.empty()) {
      require(machine.isComplete(places));
      return text;
    }
    char byte = bytes[random() % bytes.size()];
    for (const char wanted : std::string_view(hurries ? ",]}\"" : "")) {
      byte = bytes.find(wanted) != std::string::npos ? wanted : byte;
    }
    text += byte;
    machine.step(places, static_cast<uint8_t>(byte), next);
    places = next;
    machine.keepOnly(places);
  }
  return std::nullopt;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string schema(reinterpret_cast<const char*>(data + 1), size - 1);
  std::mt19937 random(data[0]);
  std::shared_ptr<const Grammar> grammar;
  const kel::Status status = engine::compileSchema(schema, grammar);
  require(status.ok() == (grammar != nullptr) && status.ok() == status.message.empty());
  if (status.ok()) {
    if (const std::optional<std::string> text = randomText(*grammar, random)) {
      const std::optional<kel::test::Json> document = kel::test::strictlyParsed(*text);
      require(document.has_value());
      const kel::test::Json root = kel::test::Json::parse(schema, nullptr, false);
      require(root.is_discarded() || kel::test::satisfies(*document, root, root));
    }
  }
  // The same as the parameters of a tool.
  const std::vector<engine::Tool> tools = {{"{\"name\":\"f\",\"parameters\":" + schema + "}"}};
  if (engine::compileToolCalls(tools, {.name = {}, .maxCalls = 2}, grammar).ok()) {
    (void)randomText(*grammar, random);
  }
  return 0;
}
