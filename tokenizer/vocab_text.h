// The text that the strings of a byte-level vocabulary are written in, and the bytes that they
// mean.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kel {

// Alphabet: every byte as a letter (alphabet.h), except the line feed alone, which is a real one.
// Raw: bytes, with U+0120 for a space.
enum class VocabText : uint8_t { Alphabet, Raw };

// The way that a tokenizer's label names; a label of another writer counts as raw.
VocabText vocabTextOf(std::string_view label);

// Appends the bytes that a token stands for. What is no letter of the alphabet stands for itself.
void appendTokenBytes(VocabText way, std::string_view token, std::string& out);

}  // namespace kel
