#include "engine/string_scan.h"

#include <string_view>

namespace engine {

namespace {

bool isBetween(uint8_t byte, uint8_t low, uint8_t high) {
  return byte >= low && byte <= high;
}

bool isHex(uint8_t byte) {
  return isBetween(byte, '0', '9') || isBetween(byte, 'a', 'f') || isBetween(byte, 'A', 'F');
}

// Whether a key spells the control character of the code 00 to 0F by its number: the others have
// shorter escapes.
bool isNumberedInKey(uint8_t lastDigit) {
  return isBetween(lastDigit, '0', '7') || lastDigit == 'b' || lastDigit == 'e' || lastDigit == 'f';
}

}  // namespace

// False where the byte would complete the guarded mark. No mark has an end that is a beginning of
// it, so that what does not go on with a mark can only begin the next one.
bool StringScan::guard(uint8_t byte) {
  const std::string_view mark = textOf(guarded);
  if (byte == static_cast<uint8_t>(mark[matched])) {
    return ++matched < mark.size();
  }
  if (matched > 0) {
    afterFeed = false;
  }
  matched = 0;
  if (byte == static_cast<uint8_t>(mark.front())) {
    matched = 1;
  } else {
    afterFeed = byte == '\n';
  }
  return true;
}

StringScan::Step StringScan::step(uint8_t byte) {
  began = false;
  if (mode == Mode::Plain) {
    return stepPlain(byte);
  }
  if (mode >= Mode::Last1) {
    return stepBytes(byte);
  }
  return mode == Mode::Escape ? stepEscape(byte) : stepHex(byte);
}

StringScan::Step StringScan::stepPlain(uint8_t byte) {
  if (kind == StringKind::Text) {
    if (byte < 0x20 && byte != '\n' && byte != '\r' && byte != '\t') {
      return Step::Refused;
    }
    if (!guard(byte)) {
      return afterFeed ? Step::Closed : Step::Refused;
    }
  } else {
    if (byte < 0x20) {
      return Step::Refused;
    }
    if (byte == '"') {
      return Step::Closed;
    }
    if (!guard(byte)) {
      return Step::Refused;
    }
  }
  began = true;
  if (byte == '\\' && kind != StringKind::Text) {
    return go(Mode::Escape);
  }
  if (byte < 0x80) {
    return Step::Inside;
  }
  switch (byte) {
    case 0xE0:
      return go(Mode::FirstOfE0);
    case 0xED:
      return go(Mode::FirstOfED);
    case 0xF0:
      return go(Mode::FirstOfF0);
    case 0xF4:
      return go(Mode::FirstOfF4);
    default:
      break;
  }
  if (isBetween(byte, 0xC2, 0xDF)) {
    return go(Mode::Last1);
  }
  if (isBetween(byte, 0xE1, 0xEF)) {
    return go(Mode::Last2);
  }
  return isBetween(byte, 0xF1, 0xF3) ? go(Mode::Last3) : Step::Refused;
}

StringScan::Step StringScan::stepBytes(uint8_t byte) {
  switch (mode) {
    case Mode::FirstOfE0:
      return isBetween(byte, 0xA0, 0xBF) ? go(Mode::Last1) : Step::Refused;
    case Mode::FirstOfED:
      return isBetween(byte, 0x80, 0x9F) ? go(Mode::Last1) : Step::Refused;
    case Mode::FirstOfF0:
      return isBetween(byte, 0x90, 0xBF) ? go(Mode::Last2) : Step::Refused;
    case Mode::FirstOfF4:
      return isBetween(byte, 0x80, 0x8F) ? go(Mode::Last2) : Step::Refused;
    default:
      break;
  }
  if (!isBetween(byte, 0x80, 0xBF)) {
    return Step::Refused;
  }
  if (mode == Mode::Last1) {
    return go(Mode::Plain);
  }
  return go(mode == Mode::Last2 ? Mode::Last1 : Mode::Last2);
}

StringScan::Step StringScan::stepEscape(uint8_t byte) {
  switch (byte) {
    case '/':
      return kind == StringKind::Key ? Step::Refused : go(Mode::Plain);
    case '"':
    case '\\':
    case 'b':
    case 'f':
    case 'n':
    case 'r':
    case 't':
      return go(Mode::Plain);
    case 'u':
      return go(kind == StringKind::Key ? Mode::KeyHex1 : Mode::Hex1);
    default:
      return Step::Refused;
  }
}

StringScan::Step StringScan::stepHex(uint8_t byte) {
  const auto goIf = [&](bool fits, Mode next) { return fits ? go(next) : Step::Refused; };
  const bool hex = isHex(byte);
  switch (mode) {
    case Mode::Hex1:
      return goIf(hex, byte == 'd' || byte == 'D' ? Mode::Hex2OfD : Mode::Hex2);
    case Mode::Hex2:
      return goIf(hex, Mode::Hex3);
    case Mode::Hex2OfD:
      if (isBetween(byte, '0', '7')) {
        return go(Mode::Hex3);
      }
      return goIf(
          byte == '8' || byte == '9' || byte == 'a' || byte == 'A' || byte == 'b' || byte == 'B',
          Mode::High3);
    case Mode::Hex3:
      return goIf(hex, Mode::Hex4);
    case Mode::High3:
      return goIf(hex, Mode::High4);
    case Mode::High4:
      return goIf(hex, Mode::PairEscape);
    case Mode::PairEscape:
      return goIf(byte == '\\', Mode::PairU);
    case Mode::PairU:
      return goIf(byte == 'u', Mode::Low1);
    case Mode::Low1:
      return goIf(byte == 'd' || byte == 'D', Mode::Low2);
    case Mode::Low2:
      return goIf(isBetween(byte, 'c', 'f') || isBetween(byte, 'C', 'F'), Mode::Low3);
    case Mode::Low3:
      return goIf(hex, Mode::Low4);
    case Mode::KeyHex1:
      return goIf(byte == '0', Mode::KeyHex2);
    case Mode::KeyHex2:
      return goIf(byte == '0', Mode::KeyHex3);
    case Mode::KeyHex3:
      return goIf(byte == '0' || byte == '1',
                  byte == '0' ? Mode::KeyHex4OfLow : Mode::KeyHex4OfHigh);
    case Mode::KeyHex4OfLow:
      return goIf(isNumberedInKey(byte), Mode::Plain);
    case Mode::KeyHex4OfHigh:
      return goIf(isBetween(byte, '0', '9') || isBetween(byte, 'a', 'f'), Mode::Plain);
    default:  // Hex4, Low4
      return goIf(hex, Mode::Plain);
  }
}

size_t StringScan::state() const {
  size_t index = static_cast<size_t>(kind);
  index = index * 2 + static_cast<size_t>(guarded);
  index = index * 32 + static_cast<size_t>(mode);
  index = index * 16 + matched;
  return index * 2 + static_cast<size_t>(afterFeed);
}

}  // namespace engine
