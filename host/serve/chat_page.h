// The chat page: files that the program carries in itself. They load nothing from elsewhere and
// talk with no server but this one; a content security policy holds the browser to that.
#pragma once

#include "host/serve/http_exchange.h"

namespace zym {

// Answers a GET of "/" or of one of the page's files. False, without an answer, for other paths.
bool answerChatPage(HttpExchange& exchange);

}  // namespace zym
