// Fields of the completions, chat and responses that say how an answer is sent and kept.
#pragma once

#include "host/serve/json_fields.h"

namespace zym {

// stream_options, which only streams have; whether the usage is asked for.
bool readStreamOptions(Fields& body, bool streams);

// "store": nothing is kept, so true is refused.
void refuseStoring(Fields& body);

// "modalities": text alone.
void readTextModalities(Fields& body);

// "verbosity": nothing but "medium", which is what there is.
void readVerbosity(Fields& fields);

}  // namespace zym
