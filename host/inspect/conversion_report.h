// What a conversion did, as people read it.
#pragma once

#include <string>

#include "convert/convert.h"

namespace zym {

// A table with a line for each group of tensors (source type, stored type, bytes, and why a type
// was not kept), then the totals, what was left out, and remarks. Ends with a line feed.
std::string conversionText(const kel::convert::ConvertSummary& summary);

}  // namespace zym
