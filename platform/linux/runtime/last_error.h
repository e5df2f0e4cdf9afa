// How a call fails here: it sets the thread's last error, a Windows number, and returns its failure
// value. `return Fail(kErrorInvalidHandle);` returns false, `return Fail(error, Thread());` an
// empty owner.
#pragma once

#include <cerrno>
#include <cstdint>

#include "platform/error.h"

namespace platform {

// Sets the last error from an errno value; an unknown one becomes kErrorGenFailure.
void SetLastErrorFromErrno(int number);

template <class Result = bool>
Result Fail(std::uint32_t error, Result failure = Result()) {
  SetLastError(error);
  return failure;
}

// The same with the error of the system call that has just failed.
template <class Result = bool>
Result FailFromErrno(Result failure = Result()) {
  SetLastErrorFromErrno(errno);
  return failure;
}

}  // namespace platform
