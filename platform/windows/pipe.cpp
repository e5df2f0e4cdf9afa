#include "platform/pipe.h"

#include "platform/error.h"
#include "platform/event.h"
#include "platform/windows/runtime/windows_api.h"

namespace platform {

static_assert(kErrorBrokenPipe == ERROR_BROKEN_PIPE);
static_assert(kErrorPipeBusy == ERROR_PIPE_BUSY);
static_assert(kErrorPipeNotConnected == ERROR_PIPE_NOT_CONNECTED);
static_assert(kShareWrite == FILE_SHARE_WRITE);
static_assert(kErrorOperationAborted == ERROR_OPERATION_ABORTED);

namespace {

// One transfer on a pipe. Its record is on the caller's stack, so Finish cancels a transfer that
// takes too long and blocks until it has finished.
class Transfer {
 public:
  explicit Transfer(const Pipe& pipe) : pipe_(pipe.Raw()), event_(CreateEventA(true, false)) {
    record_.hEvent = event_.Raw();
  }
  bool IsReady() const { return static_cast<bool>(event_); }
  OVERLAPPED* Record() { return &record_; }
  // `done` is the result of the call that started the transfer.
  bool Finish(BOOL done, DWORD milliseconds, std::uint32_t* count) {
    if (!done && ::GetLastError() != ERROR_IO_PENDING) return false;
    if (::WaitForSingleObject(record_.hEvent, milliseconds) != WAIT_OBJECT_0)
      ::CancelIoEx(pipe_, &record_);  // fails if it has just finished
    DWORD bytes = 0;
    const BOOL finished = ::GetOverlappedResult(pipe_, &record_, &bytes, TRUE);
    *count = bytes;
    return finished != FALSE;
  }

 private:
  const HANDLE pipe_;
  const Event event_;
  OVERLAPPED record_{};
};

}  // namespace

void ClosePipe(RawHandle raw) { ::CloseHandle(raw); }

Pipe OpenPipe(const char* name, std::uint32_t shareMode) {
  return Pipe(::CreateFileA(name, GENERIC_READ | GENERIC_WRITE, shareMode, nullptr, OPEN_EXISTING,
                            FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION,
                            nullptr));
}

bool GetNamedPipeServerProcessId(const Pipe& pipe, std::uint32_t* processId) {
  ULONG id = 0;
  if (!::GetNamedPipeServerProcessId(pipe.Raw(), &id)) return false;
  *processId = id;
  return true;
}

bool WriteFile(const Pipe& pipe, const void* bytes, std::uint32_t size, std::uint32_t milliseconds,
               std::uint32_t* written) {
  *written = 0;
  Transfer transfer(pipe);
  if (!transfer.IsReady()) return false;
  const BOOL done = ::WriteFile(pipe.Raw(), bytes, size, nullptr, transfer.Record());
  return transfer.Finish(done, milliseconds, written);
}

bool ReadFile(const Pipe& pipe, void* buffer, std::uint32_t size, std::uint32_t* read) {
  *read = 0;
  Transfer transfer(pipe);
  if (!transfer.IsReady()) return false;
  const BOOL done = ::ReadFile(pipe.Raw(), buffer, size, nullptr, transfer.Record());
  return transfer.Finish(done, kInfinite, read);
}

}  // namespace platform
