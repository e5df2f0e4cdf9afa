// errno to the Windows numbers of platform/error.h.
#pragma once

namespace platform {

// Sets the calling thread's last error from an errno value; an unknown one is a general failure.
void SetLastErrorFromErrno(int number);

}  // namespace platform
