// Text to train and measure tokenizers on, written for this purpose.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kel::testing {

struct SampleText {
  std::string_view language;
  std::string_view text;
};

// A paragraph or more per language, in several scripts, and some program text.
const std::vector<SampleText>& sampleTexts();

// All samples, one after the other.
std::string allSampleText();

// English-like text of at least nBytes: sentences over the sample's words and over compounds of
// them, with numbers, quotes, contractions and paragraphs. Same seed, same text.
std::string generatedEnglish(size_t nBytes, uint32_t seed);

// The same without newlines.
std::string generatedLine(size_t nBytes, uint32_t seed);

}  // namespace kel::testing
