#include "engine/utf8_text.h"

#include <utf8proc.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace engine {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
// Characters from U+0300 on, the first combining mark, begin with CC or more. Below it everything
// is its own composed form, and none of it joins the character before it.
constexpr uint8_t kFirstMarkLead = 0xCC;

uint8_t byteAt(std::string_view text, size_t at) {
  return static_cast<uint8_t>(text[at]);
}

bool isTrail(uint8_t byte) {
  return (byte & 0xC0U) == 0x80U;
}

// Bytes of the character that lead begins; 0 when it begins none.
size_t announcedBytes(uint8_t lead) {
  if (lead < 0x80) {
    return 1;
  }
  if (lead < 0xC2 || lead > 0xF4) {
    return 0;
  }
  return lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
}

// Whether second may follow lead: neither a longer form than needed, nor a surrogate, nor a code
// above U+10FFFF.
bool mayFollow(uint8_t lead, uint8_t second) {
  switch (lead) {
    case 0xE0:
      return second >= 0xA0 && second <= 0xBF;
    case 0xED:
      return second >= 0x80 && second <= 0x9F;
    case 0xF0:
      return second >= 0x90 && second <= 0xBF;
    case 0xF4:
      return second >= 0x80 && second <= 0x8F;
    default:
      return isTrail(second);
  }
}

// Bytes from text[at] on, at least one, that are a character or its beginning.
size_t subpartBytes(std::string_view text, size_t at) {
  const uint8_t lead = byteAt(text, at);
  const size_t announced = std::min(announcedBytes(lead), text.size() - at);
  size_t n = 1;
  while (n < announced &&
         (n == 1 ? mayFollow(lead, byteAt(text, at + 1)) : isTrail(byteAt(text, at + n)))) {
    ++n;
  }
  return n;
}

// Bytes of ASCII from text[at] on, a multiple of eight.
size_t asciiWords(std::string_view text, size_t at) {
  constexpr uint64_t kHighBits = 0x8080808080808080U;
  size_t end = at;
  for (uint64_t word = 0; text.size() - end >= sizeof(word); end += sizeof(word)) {
    std::memcpy(&word, text.data() + end, sizeof(word));
    if ((word & kHighBits) != 0) {
      break;
    }
  }
  return end - at;
}

// Appends the composed form of text, which no character outside it joins.
class Composer {
 public:
  void append(std::string_view text, std::string& out) {
    codes.clear();
    for (size_t at = 0; at < text.size();) {
      const Utf8Character character = characterAt(text, at);
      decompose(character.code);
      at += character.nBytes;
    }
    orderMarks();
    const auto n = utf8proc_normalize_utf32(
        codes.data(), static_cast<utf8proc_ssize_t>(codes.size()),
        static_cast<utf8proc_option_t>(UTF8PROC_COMPOSE | UTF8PROC_STABLE));
    for (utf8proc_ssize_t i = 0; i < n; ++i) {
      appendCharacter(static_cast<char32_t>(codes[static_cast<size_t>(i)]), out);
    }
  }

 private:
  void decompose(char32_t code) {
    constexpr size_t kMost = 8;  // of one character; canonical decompositions have four at most
    utf8proc_int32_t parts[kMost];
    int lastClass = 0;  // used by options that are not set here
    const auto n = utf8proc_decompose_char(
        static_cast<utf8proc_int32_t>(code), parts, kMost,
        static_cast<utf8proc_option_t>(UTF8PROC_DECOMPOSE | UTF8PROC_STABLE), &lastClass);
    codes.insert(codes.end(), parts, parts + std::clamp<utf8proc_ssize_t>(n, 0, kMost));
  }

  static int markClass(utf8proc_int32_t code) {
    return utf8proc_get_property(code)->combining_class;
  }

  // Canonical order of each run of marks. Sorted, since texts may be one long run: the library's
  // own ordering exchanges neighbours, in quadratic time.
  void orderMarks() {
    const auto isMark = [](utf8proc_int32_t code) { return markClass(code) != 0; };
    for (auto begin = codes.begin(); begin != codes.end();) {
      begin = std::find_if(begin, codes.end(), isMark);
      const auto end = std::find_if_not(begin, codes.end(), isMark);
      std::stable_sort(begin, end, [](utf8proc_int32_t a, utf8proc_int32_t b) {
        return markClass(a) < markClass(b);
      });
      begin = end;
    }
  }

  std::vector<utf8proc_int32_t> codes;
};

}  // namespace

Utf8Character characterAt(std::string_view text, size_t at) {
  const uint8_t lead = byteAt(text, at);
  if (lead < 0x80) {
    return {lead, 1, true};
  }
  const size_t nBytes = subpartBytes(text, at);
  if (nBytes != announcedBytes(lead)) {
    return {0, nBytes, false};
  }
  char32_t code = lead & (0x7FU >> nBytes);
  for (size_t i = 1; i < nBytes; ++i) {
    code = code << 6U | (byteAt(text, at + i) & 0x3FU);
  }
  return {code, nBytes, true};
}

void appendCharacter(char32_t code, std::string& out) {
  utf8proc_uint8_t encoded[4];
  const auto nBytes = utf8proc_encode_char(static_cast<utf8proc_int32_t>(code), encoded);
  out.append(reinterpret_cast<const char*>(encoded), static_cast<size_t>(nBytes));
}

void appendValid(std::string_view text, std::string& out) {
  size_t kept = 0;  // text up to here is in out
  for (size_t at = asciiWords(text, 0); at < text.size();) {
    const Utf8Character character = characterAt(text, at);
    if (!character.valid) {
      out.append(text, kept, at - kept).append(kReplacement);
      kept = at + character.nBytes;
    }
    at += character.nBytes;
    at += asciiWords(text, at);
  }
  out.append(text, kept);
}

bool isValid(std::string_view text) {
  for (size_t at = asciiWords(text, 0); at < text.size(); at += asciiWords(text, at)) {
    const Utf8Character character = characterAt(text, at);
    if (!character.valid) {
      return false;
    }
    at += character.nBytes;
  }
  return true;
}

size_t unfinishedBytes(std::string_view text) {
  for (size_t back = 1; back <= std::min<size_t>(3, text.size()); ++back) {
    const size_t at = text.size() - back;
    if (!isTrail(byteAt(text, at))) {
      const bool isBeginning =
          subpartBytes(text, at) == back && announcedBytes(byteAt(text, at)) > back;
      return isBeginning ? back : 0;
    }
  }
  return 0;
}

bool isBelowMarks(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<uint8_t>(c) < kFirstMarkLead; });
}

// Only spans of characters from U+0300 on are composed, each with the one character before it that
// a mark may join.
std::string composed(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  Composer composer;
  size_t kept = 0;    // text up to here is in out
  size_t before = 0;  // the character in front of at
  const auto isSettled = [&](size_t at) { return byteAt(text, at) < kFirstMarkLead; };
  const auto next = [&](size_t at) { return at + announcedBytes(byteAt(text, at)); };
  for (size_t at = 0; at < text.size();) {
    if (isSettled(at)) {
      before = at;
      at = next(at);
      continue;
    }
    size_t end = at;
    while (end < text.size() && !isSettled(end)) {
      end = next(end);
    }
    const size_t begin = std::max(before, kept);
    out.append(text, kept, begin - kept);
    composer.append(text.substr(begin, end - begin), out);
    kept = end;
    at = end;
  }
  return out.append(text, kept);
}

}  // namespace engine
