// The visible space markers of vocabulary strings, and their conversion from and to spaces.
//
// Only the byte 0x20 takes part; tabs, newlines and every other byte pass unchanged. The scans are
// byte-wise: a marker is recognised wherever its bytes stand. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace kel {

constexpr std::string_view kEscapedSpace = "\xE2\x96\x81";  // U+2581
constexpr std::string_view kByteLevelSpace = "\xC4\xA0";    // U+0120

// In place: every space becomes kEscapedSpace, and back.
void escapeWhitespace(std::string& s);
void unescapeWhitespace(std::string& s);

// The same conversions of text (which must not be part of out) appended to out.
void appendEscaped(std::string_view text, std::string_view marker, std::string& out);
void appendUnescaped(std::string_view text, std::string& out);

}  // namespace kel
