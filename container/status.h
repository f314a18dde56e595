// Result of every reader, loader, writer and tokenizer operation: a code and a message.
//
// Returned by value. Callers compare the code with Ok (or ask ok()) and show the message; the
// message is a fixed English phrase prefixed by its component, empty on success.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace kel {

enum class StatusCode : uint8_t {
  Ok = 0,
  InvalidFormat = 1,
  Unsupported = 2,
  Corrupted = 3,
  IoError = 4,
};

struct [[nodiscard]] Status {
  StatusCode code = StatusCode::Ok;
  std::string message;

  static Status success() { return {}; }

  // Deliberate: reader, loader and tokenizer report every failure with this one code, I/O failures
  // included. Hosts in use compare against Ok only and show the message.
  static Status invalid(std::string text) { return {StatusCode::InvalidFormat, std::move(text)}; }

  // For operations that write: the file system refused, not the data.
  static Status ioError(std::string text) { return {StatusCode::IoError, std::move(text)}; }

  bool ok() const { return code == StatusCode::Ok; }

  // "OK", "InvalidFormat", "Unsupported", "Corrupted", "IOError"; "Unknown" for any other value.
  const char* codeName() const;
};

}  // namespace kel
