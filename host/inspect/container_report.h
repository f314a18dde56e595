// What a container holds, in words and as JSON.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "container/zym_loader.h"

namespace zym {

// Shell pattern against a tensor name; an empty one matches all.
bool matchesPattern(const std::string& name, const std::string& pattern);
bool anyTensorMatches(const kel::ZYMLoader& loader, const std::string& pattern);
// "2560 x 9216", innermost first; "scalar" for rank 0.
std::string shapeText(const kel::TensorView& tensor);
// Name of a section type; "other" when the format defines none.
const char* sectionName(uint32_t type);
// A metadata value for people: arrays and long texts are cut.
std::string metaText(const kel::ZYM2Reader::MetaEntryView& entry);

// Everything but the table of tensors, line by line.
std::string summaryText(const kel::ZYMLoader& loader);
// One line for each tensor that matches pattern (empty: every one).
std::string tensorTableText(const kel::ZYMLoader& loader, const std::string& pattern);
// Summary and table together as JSON, with metadata values uncut.
nlohmann::ordered_json reportJson(const kel::ZYMLoader& loader, const std::string& pattern);

}  // namespace zym
