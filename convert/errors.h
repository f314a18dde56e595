// How the importers word and code their failures.
#pragma once

#include <fmt/core.h>

#include <string>
#include <string_view>
#include <utility>

#include "container/status.h"

namespace kel::convert {

// The bytes break the rules of their format.
template <typename... Args>
Status malformed(fmt::format_string<Args...> format, Args&&... args) {
  return Status::invalid(fmt::format(format, std::forward<Args>(args)...));
}

// The bytes are sound, but this is not a model that the runtime can run.
template <typename... Args>
Status unsupported(fmt::format_string<Args...> format, Args&&... args) {
  return {StatusCode::Unsupported, fmt::format(format, std::forward<Args>(args)...)};
}

// The file system refused.
template <typename... Args>
Status ioFailure(fmt::format_string<Args...> format, Args&&... args) {
  return Status::ioError(fmt::format(format, std::forward<Args>(args)...));
}

// "FIELD is VALUE; the runtime needs NEEDED".
template <typename Value, typename Needed>
Status misfit(std::string_view field, const Value& value, const Needed& needed) {
  return unsupported("{} is {}; the runtime needs {}", field, value, needed);
}

// Text from a file in a message: control bytes become '?', and what is long is cut.
std::string printable(std::string_view text);

}  // namespace kel::convert
