// The client's end of a named pipe that another process serves. On Linux a pipe is a Unix socket in
// the lab folder: \\.\pipe\Name is pipe/Name.
#pragma once

#include <cstdint>

#include "platform/handle.h"

namespace platform {

constexpr std::uint32_t kErrorBrokenPipe = 109;        // ERROR_BROKEN_PIPE
constexpr std::uint32_t kErrorPipeBusy = 231;          // ERROR_PIPE_BUSY
constexpr std::uint32_t kErrorPipeNotConnected = 233;  // ERROR_PIPE_NOT_CONNECTED

void ClosePipe(RawHandle raw);
using Pipe = Owned<struct PipeTag, ClosePipe>;

// CreateFileA(name, GENERIC_READ | GENERIC_WRITE, shareMode, null, OPEN_EXISTING, 0, null). Doesn't
// wait for a server with a free instance. Holds the invalid handle value on failure.
Pipe OpenPipe(const char* name, std::uint32_t shareMode);

// WriteFile, synchronously; *written gets the count. Windows waits while the pipe's buffer is full;
// Linux fails with kErrorPipeBusy instead.
bool WriteFile(const Pipe& pipe, const void* bytes, std::uint32_t size, std::uint32_t* written);

// ReadFile, synchronously: waits until there is something, then gives up to `size` bytes of it;
// *read gets the count. False, with 0 and kErrorBrokenPipe, once the server has hung up and all
// that it had said was read.
bool ReadFile(const Pipe& pipe, void* buffer, std::uint32_t size, std::uint32_t* read);

}  // namespace platform
