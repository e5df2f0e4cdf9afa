// Named pipes, the client's end.
#include "platform/pipe.h"

#include "platform/windows/windows_api.h"

namespace platform {

static_assert(kErrorBrokenPipe == ERROR_BROKEN_PIPE);
static_assert(kErrorPipeBusy == ERROR_PIPE_BUSY);
static_assert(kErrorPipeNotConnected == ERROR_PIPE_NOT_CONNECTED);

void ClosePipe(RawHandle raw) { ::CloseHandle(raw); }

Pipe OpenPipe(const char* name, std::uint32_t shareMode) {
  return Pipe(::CreateFileA(name, GENERIC_READ | GENERIC_WRITE, shareMode, nullptr, OPEN_EXISTING,
                            0, nullptr));
}

bool WriteFile(const Pipe& pipe, const void* bytes, std::uint32_t size, std::uint32_t* written) {
  DWORD count = 0;
  const BOOL done = ::WriteFile(pipe.Raw(), bytes, size, &count, nullptr);
  *written = count;
  return done != FALSE;
}

bool ReadFile(const Pipe& pipe, void* buffer, std::uint32_t size, std::uint32_t* read) {
  DWORD count = 0;
  const BOOL done = ::ReadFile(pipe.Raw(), buffer, size, &count, nullptr);
  *read = count;
  return done != FALSE;
}

}  // namespace platform
