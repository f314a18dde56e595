/* The smallest program on libzym.so: says what it runs with, and one reply. */
#include <stdio.h>

#include <zym/engine.h>

int main(int argc, char** argv) {
  char error[256] = "a model and a question are needed";
  ZYMModel* model = NULL;
  ZYMContext* context = NULL;
  ZYMReply* reply = NULL;
  if (argc == 3 && zym_model_open(argv[1], &model, error, sizeof error) == ZYM_OK &&
      zym_context_create(model, NULL, &context, error, sizeof error) == ZYM_OK) {
    ZYMMessage question = {
        .structSize = sizeof question, .role = ZYM_ROLE_USER, .content = zym_text(argv[2])};
    const ZYMMessage* messages[] = {&question};
    ZYMConversation asked = {.structSize = sizeof asked, .messages = messages, .messageCount = 1};
    ZYMSampling greedy = {.structSize = sizeof greedy};
    ZYMReplyOptions options = {.structSize = sizeof options, .sampling = &greedy};
    if (zym_context_reply(context, &asked, &options, NULL, NULL, &reply, error, sizeof error) ==
        ZYM_OK) {
      printf("%s: %s\n", zym_engine_version(), reply->message->content.data);
    }
  }
  if (reply == NULL) fprintf(stderr, "%s\n", error);
  const int result = reply == NULL;
  zym_reply_destroy(reply);
  zym_context_destroy(context);
  zym_model_close(model);
  return result;
}
