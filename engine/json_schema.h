// JSON Schema as a grammar of documents: what a reply with `response_format` must be.
//
//   std::shared_ptr<const Grammar> grammar;
//   kel::Status status = compileSchema(R"({"type": "array", "items": {"type": "integer"}})",
//   grammar);
//
// Every document of the grammar satisfies the schema; not every one that satisfies it is in the
// grammar, which leaves out other spellings and what would never end:
//
// - Members of an object stand in the order of "properties" (then "required" ones that are not
//   among them); optional ones may be left out, additional ones come last, at most 1,000 of them,
//   and no key occurs twice. An object that lists properties has additional ones only where
//   "additionalProperties" says so; one that lists none has any.
// - Where "type" is absent, keywords tell it: "properties" an object, "minLength" a string, and so
//   on; a schema without any admits every value.
// - Numbers have up to 18 digits, with a fraction up to 15 in all, and where no bounds are set an
//   exponent of up to two.
// - Elements behind those of "prefixItems" come only where "items" tells what they are.
// - White space is one space or none behind ':' and ',', or a line feed and up to four spaces for
//   every level where a member or element, or the end behind one, begins.
// - Values of "enum" and "const" are spelt one way: one line, ", " and ": ".
// - Documents nest up to 64 levels deep. Keys are spelt with no escape that can be avoided.
//
// Keywords: type, enum, const, properties, required, additionalProperties, items, prefixItems,
// minItems, maxItems, minLength, maxLength, minimum, maximum, exclusiveMinimum, exclusiveMaximum
// (all four also for numbers that are not whole), anyOf, oneOf (where no value can satisfy two of
// its schemas: by type, by different values, or by a required property of different values), allOf
// of one schema, $ref to a place in the schema, recursive or not, $defs and definitions. Without
// effect: title, description, default, examples, deprecated, readOnly, writeOnly, $schema, $id,
// $comment, and format, which annotates. Any other keyword is refused by its name.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "container/status.h"
#include "engine/grammar.h"

namespace engine {

constexpr size_t kMaxSchemaBytes = size_t{256} << 10U;
constexpr size_t kMaxSchemaDepth = 64;          // brackets within brackets
constexpr size_t kMaxSchemaNodes = 20'000;      // schemas within it
constexpr size_t kMaxSchemaAlternatives = 128;  // of one anyOf, those of its schemas included;
                                                // plain values count as one

// Failures carry InvalidFormat and leave out as it was. They name the keyword and its place as a
// JSON pointer: "schema: \"pattern\" is not supported, at #/properties/name/pattern"; or the limit
// that is passed.
kel::Status compileSchema(std::string_view json, std::shared_ptr<const Grammar>& out);

// Any object: `response_format` "json_object".
std::shared_ptr<const Grammar> anyObjectGrammar();

}  // namespace engine
