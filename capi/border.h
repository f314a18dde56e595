// What every function of the interface does at the border: failures become a status and a line of
// text, and nothing thrown gets out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "container/status.h"
#include "zym/engine.h"

namespace capi {

// A failure on its way out. Thrown by whatever reads a caller's arguments: it ends the call.
class Failure : public std::exception {
 public:
  Failure(ZYMStatus reason, std::string text) : status(reason), message(std::move(text)) {}
  const char* what() const noexcept override { return message.c_str(); }

  const ZYMStatus status;
  const std::string message;
};

// What a function of the engine works on, which decides what the codes of its status come to.
enum class Work : uint8_t { Arguments, OpenedModel, ReadFile, WrittenFile };

// Throws where the status is a failure.
void check(const kel::Status& status, Work work);

// Throws ZYM_ERROR_ARGUMENT, "NAME is null".
template <typename Pointee>
Pointee& required(Pointee* pointer, const char* name) {
  if (pointer == nullptr) {
    throw Failure(ZYM_ERROR_ARGUMENT, std::string(name) + " is null");
  }
  return *pointer;
}

// Where a call's message goes.
struct ErrorBuffer {
  char* text = nullptr;
  size_t nBytes = 0;

  void write(std::string_view message) const noexcept;
};

// Runs a call.
template <typename Call>
ZYMStatus guarded(ErrorBuffer error, const Call& call) noexcept {
  try {
    call();
    return ZYM_OK;
  } catch (const Failure& failure) {
    error.write(failure.message);
    return failure.status;
  } catch (const std::bad_alloc&) {
    error.write(zym_status_text(ZYM_ERROR_MEMORY));
    return ZYM_ERROR_MEMORY;
  } catch (...) {
    error.write(zym_status_text(ZYM_ERROR_INTERNAL));
    return ZYM_ERROR_INTERNAL;
  }
}

}  // namespace capi
