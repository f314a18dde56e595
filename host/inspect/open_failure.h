// Why a container could not be opened, in words for people: what the file is instead, how much of
// it is missing, or that memory ran out. The reader's own phrase, which scripts may know, stays in
// brackets.
#pragma once

#include <string>

#include "container/status.h"

namespace zym {

struct OpenFailure {
  std::string what;    // "is empty (ZYM2: cannot stat file)"
  std::string advice;  // what to do
  bool ofFile = true;  // false: the file may be sound
};

// status: what reader or loader answered. Looks at the file at path anew.
OpenFailure explainOpenFailure(const std::string& path, const kel::Status& status);

// The same as one line: "PATH: WHAT; ADVICE".
kel::Status openFailure(const std::string& path, const kel::Status& status);

}  // namespace zym
