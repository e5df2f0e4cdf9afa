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

constexpr std::uint32_t kShareWrite = 2;  // FILE_SHARE_WRITE

// CreateFileA(name, GENERIC_READ | GENERIC_WRITE, shareMode, null, OPEN_EXISTING,
// FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, null). Doesn't wait for a
// server with a free instance. Anybody may serve a pipe of any name, so the server may learn who
// its client is, and can't act as that user. Holds the invalid handle value on failure.
Pipe OpenPipe(const char* name, std::uint32_t shareMode);

// GetNamedPipeServerProcessId: the process that serves this end's other side. False on failure.
bool GetNamedPipeServerProcessId(const Pipe& pipe, std::uint32_t* processId);

// WriteFile: waits for up to `milliseconds` (kInfinite for no bound) until the pipe has taken all
// bytes; *written gets their count. False with kErrorOperationAborted when the time has passed; a
// part may have been taken then.
bool WriteFile(const Pipe& pipe, const void* bytes, std::uint32_t size, std::uint32_t milliseconds,
               std::uint32_t* written);

// ReadFile: waits until there is something, then gives up to `size` bytes of it;
// *read gets the count. False, with 0 and kErrorBrokenPipe, once the server has hung up and all
// that it had said was read.
bool ReadFile(const Pipe& pipe, void* buffer, std::uint32_t size, std::uint32_t* read);

}  // namespace platform
