#include "host/serve/stream_options.h"

#include <array>
#include <string_view>

namespace zym {

bool readStreamOptions(Fields& body, bool streams) {
  const auto object = body.object("stream_options");
  if (!object) {
    return false;
  }
  if (!streams) {
    body.fail("stream_options", "needs stream to be true");
    return false;
  }
  // Padding against guesses at the length of what is encrypted.
  static constexpr std::array<std::string_view, 1> kHarmless = {"include_obfuscation"};
  Fields options(*object, body.pathOf("stream_options"), body.errors());
  const bool showsUsage = options.boolean("include_usage").value_or(false);
  options.finish(kHarmless);
  return showsUsage;
}

void refuseStoring(Fields& body) {
  if (body.boolean("store").value_or(false)) {
    body.fail("store", "must be false: nothing is stored");
  }
}

void readTextModalities(Fields& body) {
  const auto modalities = body.array("modalities", 1);
  if (modalities && (modalities->empty() || modalities->front() != "\"text\"")) {
    body.fail("modalities", "must be [\"text\"]: answers are text");
  }
}

void readVerbosity(Fields& fields) {
  const auto verbosity = fields.string("verbosity");
  if (verbosity && *verbosity != "medium") {
    fields.fail("verbosity",
                "must be \"medium\": say in the instructions how long answers should be");
  }
}

}  // namespace zym
