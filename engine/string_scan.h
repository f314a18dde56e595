// JSON strings and the free text of calls, byte by byte: whole characters of UTF-8, whole escapes,
// surrogates in pairs, no guarded mark (engine/grammar.h).
#pragma once

#include <cstddef>
#include <cstdint>

#include "engine/grammar.h"

namespace engine {

// Value: any escape. Key: spelt as it can be shortest, so that equal keys are equal bytes: escapes
// for the quote, the backslash and control characters alone. Both begin behind the opening quote
// and end with the closing one. Text: see FreeTextNode; no control characters but white space.
enum class StringKind : uint8_t { Value, Key, Text };

class StringScan {
 public:
  enum class Step : uint8_t { Refused, Inside, Closed };

  StringScan() = default;
  StringScan(StringKind stringKind, GuardedMark guardedMark)
      : kind(stringKind), guarded(guardedMark) {}

  // Once it is refused, or closed, the scan is of no further use.
  Step step(uint8_t byte);

  // The byte before began a character, or an escape that stands for one. A pair of surrogates is
  // one.
  bool beganCharacter() const { return began; }
  // No character, escape or pair has begun without having ended.
  bool isBetweenCharacters() const { return mode == Mode::Plain; }
  // Within a character of several bytes.
  bool isWithinBytes() const { return mode >= Mode::Last1; }

  // Below kStates: tells all that decides which bytes may follow.
  size_t state() const;
  static constexpr size_t kStates = size_t{3} * 2 * 32 * 16 * 2;

 private:
  enum class Mode : uint8_t {
    Plain,
    Escape,
    Hex1,  // behind \u
    Hex2,
    Hex2OfD,  // behind \uD: half of the surrogates begin a pair
    Hex3,
    Hex4,
    High3,  // of a surrogate that begins a pair
    High4,
    PairEscape,
    PairU,
    Low1,
    Low2,
    Low3,
    Low4,
    KeyHex1,  // of a control character, which begins with 00
    KeyHex2,
    KeyHex3,
    KeyHex4OfLow,   // \u000?
    KeyHex4OfHigh,  // \u001?
    Last1,          // continuation bytes to come
    Last2,
    Last3,
    FirstOfE0,  // lead bytes behind which not every continuation byte may stand
    FirstOfED,
    FirstOfF0,
    FirstOfF4,
  };

  Step stepPlain(uint8_t byte);
  Step stepEscape(uint8_t byte);
  Step stepHex(uint8_t byte);
  Step stepBytes(uint8_t byte);
  bool guard(uint8_t byte);
  Step go(Mode next) {
    mode = next;
    return Step::Inside;
  }

  StringKind kind = StringKind::Value;
  GuardedMark guarded = GuardedMark::CallBegin;
  Mode mode = Mode::Plain;
  uint8_t matched = 0;     // bytes of the guarded mark that stand before
  bool afterFeed = false;  // a line feed stands before: them, or what comes
  bool began = false;
};

}  // namespace engine
