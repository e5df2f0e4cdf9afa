// Calls from other threads into a selector's run thread, each with a message that is kept until its
// callback has run.
#pragma once

#include "cim/message/message.h"
#include "sock/selector.h"

namespace stewardry::cim {

// Runs callback(callbackData, message) on the selector's run thread: at once if that is the calling
// thread, else at the head of its next pass, or, if the selector is destroyed first, not at all.
// The message gets a reference for that time, and its batch gives the room for the call, so one
// thread at a time may post one message. RESULT_OK, or RESULT_FAILED without memory or for a
// selector never made. Any thread, not while the selector is destroyed.
Result Selector_CallInRunThread(Selector* selector, void (*callback)(void*, Message*),
                                void* callbackData, Message* message);

}  // namespace stewardry::cim
