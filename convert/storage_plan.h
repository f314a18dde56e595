// Types of tensors by pattern, from a text file.
//
//   # the output head counts most
//   output.weight          q8_0
//   blk.*.ffn_down.weight  q5_k
//   *                      q4_k
//
// A line is a pattern and a type; what follows a # is a comment. In a pattern, * stands for any
// characters, ? for one, and [ab] for one of several. The first line that matches a tensor's name
// in the container counts.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "container/status.h"
#include "convert/convert.h"

namespace kel::convert {

// Faults name the file and the line.
Status readStoragePlan(const std::string& path, std::vector<PlanRule>& out);

// Index of the first rule that matches, rules.size() when none does.
size_t findRule(const std::vector<PlanRule>& rules, const std::string& tensor);

// The rules as lines of such a file, without comments.
std::string planText(const std::vector<PlanRule>& rules);

}  // namespace kel::convert
