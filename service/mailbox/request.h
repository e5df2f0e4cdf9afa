// How a request to the firmware runs. The request record and its event live on the caller's stack,
// so requests of several threads are in flight on the one handle at the same time without a lock.
#pragma once

#include <cstdint>
#include <type_traits>

#include "service/mailbox/control_codes.h"

namespace stewardry {

// How a started request ended.
struct RequestOutcome {
  bool completed = false;   // the device finished it without an error
  std::uint32_t bytes = 0;  // the device's byte count
};

// Sends one overlapped request and waits for its end without a time-out. `input` and `output` are
// the caller's and may be null with size 0. Returns 0 once the request was started, whatever its
// outcome; 1 after a logged failure to start it. Any thread.
std::uint32_t RunRequest(Operation operation, const void* input, std::uint32_t inputSize,
                         void* output, std::uint32_t outputSize, RequestOutcome* outcome);

// Makes one plain call without an answer. Returns 0, or 1 for an invalid handle or a failure;
// *returned gets the device's byte count, 0 without a call. Logs nothing. Any thread.
std::uint32_t RunPlainCall(Operation operation, const void* input, std::uint32_t inputSize,
                           std::uint32_t* returned);

// The typed forms. A record is transferred whole, so its type has the size of the table's row.

// RunRequest that sends `record`.
template <Operation kOperation, class Record>
std::uint32_t SendRecord(const Record& record) {
  static_assert(std::is_trivially_copyable_v<Record>);
  static_assert(ControlCodeFor(kOperation).inputSize == sizeof(Record));
  static_assert(ControlCodeFor(kOperation).outputSize == 0);
  RequestOutcome outcome;
  return RunRequest(kOperation, &record, sizeof(Record), nullptr, 0, &outcome);
}

// RunRequest that fills *record.
template <Operation kOperation, class Record>
std::uint32_t ReadRecord(Record* record, RequestOutcome* outcome) {
  static_assert(std::is_trivially_copyable_v<Record>);
  static_assert(ControlCodeFor(kOperation).inputSize == 0);
  static_assert(ControlCodeFor(kOperation).outputSize == sizeof(Record));
  return RunRequest(kOperation, nullptr, 0, record, sizeof(Record), outcome);
}

// RunPlainCall that sends `record`.
template <Operation kOperation, class Record>
std::uint32_t SendPlainRecord(const Record& record, std::uint32_t* returned) {
  static_assert(std::is_trivially_copyable_v<Record>);
  static_assert(ControlCodeFor(kOperation).inputSize == sizeof(Record));
  return RunPlainCall(kOperation, &record, sizeof(Record), returned);
}

}  // namespace stewardry
