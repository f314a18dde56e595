// Errors as the interfaces word them: one place for those of requests that reach an interface and
// for those of requests that the transport refuses.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace zym {

using Json = nlohmann::ordered_json;

// On one line; valid UTF-8 whatever the strings hold.
std::string jsonText(const Json& json);

// What is wrong with a request, or why it is not answered.
struct ApiError {
  int status = 0;  // of HTTP; 0: nothing is wrong
  std::string message;
  std::string param;      // the field, as a path: "messages[2].content"
  std::string code = {};  // for programs, where there is one

  explicit operator bool() const { return status != 0; }
};

// How an interface words its errors: those of the completions, chat and responses, or that of
// messages.
enum class ErrorForm : uint8_t { Completions, Messages };

// That of the interface at path; Completions where there is none.
ErrorForm errorFormOf(std::string_view path);

// {"error":{"message","type","param","code"}}, or
// {"type":"error","error":{"type","message"}}.
Json errorBody(ErrorForm form, const ApiError& error);

}  // namespace zym
