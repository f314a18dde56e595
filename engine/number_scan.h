// JSON numbers, byte by byte, within bounds: a number that has begun can always be ended within
// them.
//
// Numbers with a fraction have at most 15 digits in all, so that readers that keep a number as a
// double find it on the same side of every bound.
#pragma once

#include <cstdint>
#include <string_view>

namespace engine {

// Of 33 digits and more.
__extension__ using WideInt = __int128;

constexpr int kWholeDigits = 18;  // before the point, where there is none
constexpr int kDigits = 15;       // before and behind the point
constexpr int kFractionDigits = kDigits - 1;
constexpr int kExponentDigits = 2;

// exponent: 0 to 37.
WideInt powerOfTen(int exponent);

// Bounds are in units: 1, or for numbers with a fraction 10^-14.
struct NumberForm {
  bool isInteger = false;
  bool hasExponent = false;  // without bounds only
  WideInt least = 0;
  WideInt greatest = 0;

  // All that can be written.
  static NumberForm integers();
  static NumberForm numbers();
  WideInt unit() const { return isInteger ? 1 : powerOfTen(kFractionDigits); }
  // No number that can be written is within the bounds.
  bool isEmpty() const;
};

// A JSON number as units of the form. What lies between two units, or beyond the digits that a
// number may have, becomes the unit below (roundsUp: above) or the bound of what may be written.
// exact: nothing had to be rounded.
WideInt unitsOf(std::string_view number, const NumberForm& form, bool roundsUp, bool& exact);

class NumberScan {
 public:
  // False where no number of the form goes on with the byte; the scan is then as it was.
  bool step(const NumberForm& form, uint8_t byte);
  // A number of the form may end here.
  bool isComplete(const NumberForm& form) const;

  bool operator==(const NumberScan&) const = default;
  uint64_t identity() const;

 private:
  enum class Phase : uint8_t { Begin, Minus, Whole, Point, Fraction, Exponent, Sign, Power };

  bool stepDigit(const NumberForm& form, uint8_t digit);
  bool canEnd(const NumberForm& form) const;

  Phase phase = Phase::Begin;
  bool negative = false;
  uint8_t whole = 0;     // digits
  uint8_t fraction = 0;  //
  uint8_t power = 0;     //
  WideInt digits = 0;    // before and behind the point
};

}  // namespace engine
