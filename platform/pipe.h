// The client's end of a named pipe. On Linux \\.\pipe\Name is the Unix socket pipe/Name of the lab
// folder.
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

// Connects to a free instance of a pipe and does not wait for one (CreateFileA). Any user may serve
// a pipe of any name, so the server may identify its client but not impersonate it
// (SECURITY_IDENTIFICATION). Holds the invalid handle value on failure.
Pipe OpenPipe(const char* name, std::uint32_t shareMode);

// Stores the process id of the server.
bool GetNamedPipeServerProcessId(const Pipe& pipe, std::uint32_t* processId);

// Blocks until the pipe has taken all bytes, for at most `milliseconds` (kInfinite for no limit),
// and stores their number in *written. Returns false with kErrorOperationAborted when the time has
// passed; a part may have been written.
bool WriteFile(const Pipe& pipe, const void* bytes, std::uint32_t size, std::uint32_t milliseconds,
               std::uint32_t* written);

// Blocks until there is data, reads at most `size` bytes of it and stores their number in *read.
// Returns false with kErrorBrokenPipe and 0 when the server has closed and all data has been read.
bool ReadFile(const Pipe& pipe, void* buffer, std::uint32_t size, std::uint32_t* read);

}  // namespace platform
