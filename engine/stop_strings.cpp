#include "engine/stop_strings.h"

namespace engine {

namespace {

uint8_t byteOf(char c) {
  return static_cast<uint8_t>(c);
}

}  // namespace

StopStrings::StopStrings(const std::vector<std::string>& strings) : kept(strings), states(1) {
  for (size_t i = 0; i < kept.size(); ++i) {
    if (!kept[i].empty()) {
      addString(kept[i], i);
    }
  }
  linkStates();
}

void StopStrings::addString(std::string_view string, size_t index) {
  uint32_t state = 0;
  for (size_t i = 0; i < string.size(); ++i) {
    const uint8_t byte = byteOf(string[i]);
    if (states[state].next[byte] == 0) {
      states[state].next[byte] = static_cast<uint32_t>(states.size());
      states.emplace_back().text = string.substr(0, i + 1);
    }
    state = states[state].next[byte];
  }
  if (states[state].complete == kNone) {
    states[state].complete = index;
  }
}

// From the shorter texts to the longer ones: what a state lacks, that of its text without the first
// byte has.
void StopStrings::linkStates() {
  std::vector<uint32_t> queue = {0};
  for (size_t at = 0; at < queue.size(); ++at) {
    State& state = states[queue[at]];
    const State& shorter = states[state.shorter];
    if (state.complete == kNone) {
      state.complete = shorter.complete;
    }
    for (size_t byte = 0; byte < state.next.size(); ++byte) {
      const uint32_t after = queue[at] == 0 ? 0 : shorter.next[byte];
      if (state.next[byte] == 0) {
        state.next[byte] = after;
      } else {
        states[state.next[byte]].shorter = after;
        queue.push_back(state.next[byte]);
      }
    }
  }
}

std::string StopStrings::feed(std::string_view piece) {
  std::string out;
  for (size_t i = 0; i < piece.size() && !stoppedBy; ++i) {
    const State& before = states[current];
    current = before.next[byteOf(piece[i])];
    const State& after = states[current];
    // What was held and the new byte, less what is held from here.
    const size_t leaving = before.text.size() + 1 - after.text.size();
    out += before.text.substr(0, leaving);
    if (leaving > before.text.size()) {
      out += piece[i];
    }
    if (after.complete != kNone) {
      stoppedBy = after.complete;
      out += after.text.substr(0, after.text.size() - kept[after.complete].size());
      current = 0;
    }
  }
  return out;
}

std::string StopStrings::finish() {
  std::string held(states[current].text);
  current = 0;
  return held;
}

void StopStrings::reset() {
  current = 0;
  stoppedBy.reset();
}

}  // namespace engine
