// How a request to the firmware runs: the one pattern behind every message, with the wording of
// each operation's log lines. The request record and its event live on the caller's stack, so
// requests of several threads are in flight on the one handle at the same time without a lock.
#pragma once

#include <cstdint>

#include "service/mailbox/control_codes.h"

namespace stewardry {

// How a started request ended.
struct RequestOutcome {
  bool completed = false;   // the device has finished it without an error
  std::uint32_t bytes = 0;  // that it reported
};

// Sends one request of mode O and waits for its end without a time-out. `input` and `output` are
// the caller's and may be null with size 0. 0 once the request was started, whatever came of it;
// 1 after a logged failure to start it. Any thread.
std::uint32_t RunRequest(Operation operation, const void* input, std::uint32_t inputSize,
                         void* output, std::uint32_t outputSize, RequestOutcome* outcome);

// Sends `input` of the size that the table gives.
std::uint32_t SendRecord(Operation operation, const void* input);
// Asks for `output` of the size that the table gives.
std::uint32_t AskForRecord(Operation operation, void* output, RequestOutcome* outcome);

// A plain call, mode S. 0 for success, 1 for an invalid handle or a failure. *returned gets the
// device's byte count, 0 if it wasn't asked. Logs nothing.
std::uint32_t RunPlainCall(Operation operation, const void* input, std::uint32_t inputSize,
                           std::uint32_t* returned);

}  // namespace stewardry
