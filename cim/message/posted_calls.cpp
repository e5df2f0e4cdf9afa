// A call's node, out of its message.
#include "cim/message/posted_calls.h"

namespace stewardry::cim {

namespace {

// A call and the callback of the library's own type, in the message's batch.
struct MessageCall {
  PostedCall posted;
  void (*callback)(void* callbackData, Message* message);
  void* callbackData;
};

void RunMessageCall(void* call, void* message) {
  const auto* own = static_cast<const MessageCall*>(call);
  own->callback(own->callbackData, static_cast<Message*>(message));
}

void DropMessage(void* message) { Message_Drop(static_cast<Message*>(message)); }

}  // namespace

Result Selector_CallInRunThread(Selector* selector, void (*callback)(void*, Message*),
                                void* callbackData, Message* message) {
  if (selector->state == nullptr) return RESULT_FAILED;
  if (Selector_IsRunThread(selector)) return callback(callbackData, message), RESULT_OK;
  auto* call = static_cast<MessageCall*>(Batch_AllocZero(message->batch, sizeof(MessageCall)));
  if (call == nullptr) return RESULT_FAILED;
  call->callback = callback;
  call->callbackData = callbackData;
  call->posted.callback = RunMessageCall;
  call->posted.callbackData = call;
  call->posted.message = message;
  Message_Retain(message);
  Selector_Post(selector, &call->posted, DropMessage);
  return RESULT_OK;
}

}  // namespace stewardry::cim
