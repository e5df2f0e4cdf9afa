// A call's node, out of its message.
#include "base/posted_calls.h"

namespace stewardry {

Result Selector_CallInRunThread(Selector* selector, void (*callback)(void*, Message*),
                                void* callbackData, Message* message) {
  if (selector->state == nullptr) return RESULT_FAILED;
  if (Selector_IsRunThread(selector)) return callback(callbackData, message), RESULT_OK;
  auto* call = static_cast<PostedCall*>(Batch_AllocZero(message->batch, sizeof(PostedCall)));
  if (call == nullptr) return RESULT_FAILED;
  call->callback = callback;
  call->callbackData = callbackData;
  call->message = message;
  Message_Retain(message);
  Selector_Post(selector, call, Message_Drop);
  return RESULT_OK;
}

}  // namespace stewardry
