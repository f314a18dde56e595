#include "engine/number_scan.h"

#include <algorithm>
#include <array>

namespace engine {

namespace {

bool isDigit(uint8_t byte) {
  return byte >= '0' && byte <= '9';
}

// Digits behind the point, behind so many before it.
int fractionDigits(int whole) {
  return std::max(kDigits - whole, 0);
}

// Numbers of one sign by their size.
struct Interval {
  WideInt least;
  WideInt greatest;
};

// Zero is not negative: "-0" would be a second way to write it.
Interval sizes(const NumberForm& form, bool negative) {
  if (negative) {
    return {std::max<WideInt>(1, -form.greatest), -form.least};
  }
  return {std::max<WideInt>(0, form.least), form.greatest};
}

// Whether one of the sizes from low to high is wanted and can be written with so many digits before
// the point.
bool canBeWritten(const NumberForm& form, const Interval& wanted, WideInt low, WideInt high,
                  int whole) {
  const WideInt step = form.isInteger ? 1 : powerOfTen(kFractionDigits - fractionDigits(whole));
  const WideInt first = (std::max(low, wanted.least) + step - 1) / step * step;
  return first <= std::min(high, wanted.greatest);
}

// The same of all sizes.
bool hasNumbers(const NumberForm& form, bool negative) {
  const Interval wanted = sizes(form, negative);
  for (int whole = 1; whole <= kWholeDigits; ++whole) {
    const WideInt low = whole == 1 ? 0 : form.unit() * powerOfTen(whole - 1);
    if (canBeWritten(form, wanted, low, form.unit() * powerOfTen(whole) - 1, whole)) {
      return true;
    }
  }
  return false;
}

}  // namespace

WideInt powerOfTen(int exponent) {
  static constexpr std::array<WideInt, 38> kPowers = [] {
    std::array<WideInt, 38> powers{};
    WideInt power = 1;
    for (WideInt& entry : powers) {
      entry = power;
      power *= 10;
    }
    return powers;
  }();
  return kPowers[static_cast<size_t>(exponent)];
}

NumberForm NumberForm::integers() {
  const WideInt beyond = powerOfTen(kWholeDigits);
  return {.isInteger = true, .hasExponent = false, .least = 1 - beyond, .greatest = beyond - 1};
}

NumberForm NumberForm::numbers() {
  const WideInt beyond = powerOfTen(kWholeDigits + kFractionDigits);
  return {.isInteger = false, .hasExponent = true, .least = 1 - beyond, .greatest = beyond - 1};
}

WideInt unitsOf(std::string_view number, const NumberForm& form, bool roundsUp, bool& exact) {
  const bool negative = number.starts_with('-');
  // As digits and the place of the point behind the first of them.
  std::string_view rest = number.substr(negative ? 1 : 0);
  const size_t exponentAt = std::min(rest.find_first_of("eE"), rest.size());
  int64_t exponent = 0;
  bool negativeExponent = false;
  for (const char c : rest.substr(exponentAt)) {
    negativeExponent |= c == '-';
    if (isDigit(static_cast<uint8_t>(c))) {
      exponent = std::min<int64_t>(exponent * 10 + (c - '0'), 1'000'000'000);
    }
  }
  exponent = negativeExponent ? -exponent : exponent;
  rest = rest.substr(0, exponentAt);
  const auto wholeDigits = static_cast<int64_t>(std::min(rest.find('.'), rest.size()));

  // The size in units, cut off below them, and capped above what may be written.
  const WideInt cap = form.unit() * powerOfTen(kWholeDigits);
  const int64_t unitDigits = form.isInteger ? 0 : kFractionDigits;
  int64_t weight = wholeDigits + exponent + unitDigits;  // power of ten above the next digit
  WideInt size = 0;
  bool capped = false;
  exact = true;
  for (const char c : rest) {
    if (c == '.') {
      continue;
    }
    --weight;
    const int digit = c - '0';
    if (digit != 0 && weight >= kWholeDigits + unitDigits) {
      capped = true;
    } else if (weight >= 0 && !capped) {
      size += digit == 0 ? 0 : digit * powerOfTen(static_cast<int>(weight));
    } else if (digit != 0) {
      exact = false;
    }
  }
  if (capped) {
    exact = false;
    size = cap;
  }
  // Away from zero where the rounding asks for it.
  if (!exact && !capped && roundsUp != negative) {
    ++size;
  }
  return negative ? -size : size;
}

bool NumberForm::isEmpty() const {
  return !hasNumbers(*this, false) && !hasNumbers(*this, true);
}

bool NumberScan::canEnd(const NumberForm& form) const {
  const Interval wanted = sizes(form, negative);
  const int behind = form.isInteger ? 0 : kFractionDigits - fraction;
  // Any number of further digits before the point; none behind a zero.
  const int further = phase != Phase::Whole || digits == 0 ? 0 : kWholeDigits - whole;
  for (int i = 0; i <= further; ++i) {
    const WideInt scale = powerOfTen(behind + i);
    if (canBeWritten(form, wanted, digits * scale, (digits + 1) * scale - 1, whole + i)) {
      return true;
    }
  }
  return false;
}

bool NumberScan::stepDigit(const NumberForm& form, uint8_t digit) {
  NumberScan next = *this;
  switch (phase) {
    case Phase::Begin:
    case Phase::Minus:
      next.phase = Phase::Whole;
      next.whole = 1;
      break;
    case Phase::Whole:
      if (digits == 0 || whole == kWholeDigits) {
        return false;
      }
      ++next.whole;
      break;
    case Phase::Point:
    case Phase::Fraction:
      if (fraction == fractionDigits(whole)) {
        return false;
      }
      next.phase = Phase::Fraction;
      ++next.fraction;
      break;
    case Phase::Exponent:
    case Phase::Sign:
    case Phase::Power:
      if (power == kExponentDigits) {
        return false;
      }
      next.phase = Phase::Power;
      ++next.power;
      *this = next;
      return true;
  }
  next.digits = digits * 10 + digit;
  // With an exponent any digits are within the bounds, which there are none of.
  if (!form.hasExponent && !next.canEnd(form)) {
    return false;
  }
  *this = next;
  return true;
}

bool NumberScan::step(const NumberForm& form, uint8_t byte) {
  if (isDigit(byte)) {
    return stepDigit(form, static_cast<uint8_t>(byte - '0'));
  }
  switch (byte) {
    case '-':
      if (phase == Phase::Exponent) {
        phase = Phase::Sign;
        return true;
      }
      if (phase == Phase::Begin) {
        if (!hasNumbers(form, true)) {
          return false;
        }
        phase = Phase::Minus;
        negative = true;
        return true;
      }
      return false;
    case '+':
      if (phase == Phase::Exponent) {
        phase = Phase::Sign;
        return true;
      }
      return false;
    case '.': {
      if (phase != Phase::Whole || form.isInteger || fractionDigits(whole) == 0) {
        return false;
      }
      NumberScan next = *this;
      next.phase = Phase::Point;
      if (!form.hasExponent && !next.canEnd(form)) {
        return false;
      }
      *this = next;
      return true;
    }
    case 'e':
    case 'E':
      if (!form.hasExponent || (phase != Phase::Whole && phase != Phase::Fraction)) {
        return false;
      }
      phase = Phase::Exponent;
      return true;
    default:
      return false;
  }
}

bool NumberScan::isComplete(const NumberForm& form) const {
  if (phase != Phase::Whole && phase != Phase::Fraction && phase != Phase::Power) {
    return false;
  }
  if (form.hasExponent) {
    return true;
  }
  const int behind = form.isInteger ? 0 : kFractionDigits - fraction;
  const WideInt size = digits * powerOfTen(behind);
  const Interval wanted = sizes(form, negative);
  return size >= wanted.least && size <= wanted.greatest;
}

uint64_t NumberScan::identity() const {
  uint64_t mixed = static_cast<uint64_t>(digits) ^ (static_cast<uint64_t>(digits >> 64) << 17U);
  for (const uint64_t part : {static_cast<uint64_t>(phase), static_cast<uint64_t>(negative),
                              uint64_t{whole}, uint64_t{fraction}, uint64_t{power}}) {
    mixed = (mixed ^ part) * 0x9E3779B97F4A7C15U;
    mixed ^= mixed >> 29U;
  }
  return mixed;
}

}  // namespace engine
