// The reader thread, which receives every firmware command. It keeps ten reads outstanding on the
// device, dispatches the frame of each finished read, and starts that slot's next read.
#pragma once

#include <cstdint>

namespace stewardry {

// The reader thread's entry; the parameter is not used. Returns 0 when the device can't be opened
// or read, after a log line, or when the thread was asked to stop. A reader that ends by itself
// writes an event entry. With the setting RestartWhenDeaf it then ends the process, once the device
// is there and a minute is over.
std::uint32_t intThreadFunction(void* parameter);

// Asks the reader thread to exit and wakes it. It exits without another frame or log line, after
// the handler that it is in, if any, has returned. Called by the control handler's thread; the
// process starts no other reader.
void AskReaderToStop();

}  // namespace stewardry
