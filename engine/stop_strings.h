// Ends a text where one of several strings begins, while the text comes in pieces.
//
//   StopStrings stops({"\n\n", "User:"});
//   for (piece of the reply) {
//     show(stops.feed(piece));
//     if (stops.stopped()) break;
//   }
//   show(stops.finish());
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace engine {

// Finds the strings by an automaton that reads every byte once: Aho and Corasick, "Efficient String
// Matching: An Aid to Bibliographic Search" (1975). A kilobyte for every byte of the strings. Bytes
// are all that counts: pieces and strings may be cut within a character. One thread at a time.
class StopStrings {
 public:
  // Empty strings stop nothing.
  explicit StopStrings(const std::vector<std::string>& strings);
  // States refer to the strings, which moving leaves where they are.
  StopStrings(StopStrings&&) = default;
  StopStrings& operator=(StopStrings&&) = default;

  // The text that is known not to belong to a stop string: all but an end that may be the beginning
  // of one. The string that is complete first stops the text, of those that end together the
  // longest one, of equals the first; neither it nor anything after it is given out.
  std::string feed(std::string_view piece);
  // What was held back, at the end of a text that nothing stopped.
  std::string finish();
  // Index of the string that stopped the text.
  std::optional<size_t> stopped() const { return stoppedBy; }
  // Ready for another text.
  void reset();

 private:
  static constexpr size_t kNone = static_cast<size_t>(-1);

  // A state is the longest end of the text so far that begins a string.
  struct State {
    std::array<uint32_t, 256> next{};  // state after a byte
    std::string_view text;             // of `kept`
    size_t complete = kNone;           // the longest string that ends here
    uint32_t shorter = 0;              // the longest proper end of the text that is a state, too
  };

  void addString(std::string_view string, size_t index);
  void linkStates();

  std::vector<std::string> kept;
  std::vector<State> states;
  uint32_t current = 0;
  std::optional<size_t> stoppedBy;
};

}  // namespace engine
