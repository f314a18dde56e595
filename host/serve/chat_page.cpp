#include "host/serve/chat_page.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <utility>

#include "host/serve/embedded_files.h"

namespace zym {

namespace {

// Model text that got past the sanitiser still could load, run, style and send nothing; trusted
// types leave the sanitiser's own parsing as the only way from text to elements.
constexpr std::string_view kPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
    "base-uri 'none'; form-action 'none'; frame-ancestors 'none'; "
    "require-trusted-types-for 'script'; trusted-types dompurify";

constexpr std::array<std::pair<std::string_view, std::string_view>, 4> kTypes = {{
    {".html", "text/html; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".svg", "image/svg+xml"},
}};

std::string_view typeOf(std::string_view name) {
  const auto* type = std::find_if(kTypes.begin(), kTypes.end(), [name](const auto& entry) {
    return name.ends_with(entry.first);
  });
  return type->second;
}

}  // namespace

bool answerChatPage(HttpExchange& exchange) {
  const HttpRequest& request = exchange.request();
  if (!request.path.starts_with('/')) {
    return false;
  }
  const std::string_view name =
      request.path == "/" ? "index.html" : std::string_view(request.path).substr(1);
  const auto files = embeddedFiles();
  const auto file = std::find_if(files.begin(), files.end(), [name](const EmbeddedFile& candidate) {
    return candidate.name == name;
  });
  if (file == files.end()) {
    return false;
  }
  const HttpHeaders headers = {
      {"Content-Security-Policy", std::string(kPolicy)},
      {"X-Content-Type-Options", "nosniff"},
      {"Referrer-Policy", "no-referrer"},
      {"Cross-Origin-Opener-Policy", "same-origin"},
      {"Cache-Control", "no-cache"},  // asked for again each time, and sent where it has changed
      {"ETag", std::string(file->tag)},
  };
  const auto known = request.headers.find("if-none-match");
  if (known != request.headers.end() && known->second == file->tag) {
    exchange.answer(304, typeOf(name), {}, headers);
  } else {
    exchange.answer(200, typeOf(name), std::string(file->text), headers);
  }
  return true;
}

}  // namespace zym
