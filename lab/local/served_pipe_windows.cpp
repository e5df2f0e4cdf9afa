// The next instance is created before a client is served: the service reconnects at once, and would
// wait two seconds if no instance were free.
#include <windows.h>

#include <type_traits>

#include "lab/local/served_pipe.h"

namespace lab {

namespace {

constexpr DWORD kBuffer = 1024;
constexpr std::size_t kLongestAnswer = 4096;  // above any answer: a bound for any other client

struct CloseObject {
  void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using Object = std::unique_ptr<std::remove_pointer_t<HANDLE>, CloseObject>;

Object MakeInstance(const std::string& name, DWORD mode) {
  HANDLE made = CreateNamedPipeA(("\\\\.\\pipe\\" + name).c_str(), PIPE_ACCESS_DUPLEX | mode,
                                 PIPE_TYPE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
                                 PIPE_UNLIMITED_INSTANCES, kBuffer, kBuffer, 0, nullptr);
  return Object(made == INVALID_HANDLE_VALUE ? nullptr : made);
}

// Runs one operation at a time on an instance and cancels it at a deadline.
class Operation {
 public:
  Operation(HANDLE instance, Deadline deadline) : instance_(instance), deadline_(deadline) {
    request_.hEvent = event_.get();
  }
  OVERLAPPED* Request() {
    ResetEvent(event_.get());
    return &request_;
  }
  // Blocks until the operation that first returned `done` has ended. Returns ERROR_SUCCESS or its
  // error.
  DWORD Await(BOOL done, DWORD* count) {
    DWORD error = done ? ERROR_SUCCESS : GetLastError();
    if (error != ERROR_SUCCESS && error != ERROR_IO_PENDING) return error;
    if (WaitForSingleObject(event_.get(), static_cast<DWORD>(MillisecondsTo(deadline_))) !=
        WAIT_OBJECT_0)
      CancelIoEx(instance_, &request_);
    error = GetOverlappedResult(instance_, &request_, count, TRUE) ? ERROR_SUCCESS : GetLastError();
    return error == ERROR_OPERATION_ABORTED ? WAIT_TIMEOUT : error;
  }

 private:
  HANDLE instance_;
  Deadline deadline_;
  Object event_{CreateEventA(nullptr, TRUE, FALSE, nullptr)};
  OVERLAPPED request_{};
};

DWORD AwaitClient(HANDLE instance, Deadline deadline) {
  Operation operation(instance, deadline);
  DWORD ignored = 0;
  const BOOL done = ConnectNamedPipe(instance, operation.Request());
  const DWORD error = operation.Await(done, &ignored);
  return error == ERROR_PIPE_CONNECTED ? ERROR_SUCCESS : error;  // it has connected before the wait
}

DWORD Send(HANDLE instance, const char* bytes, std::size_t size, Deadline deadline) {
  Operation operation(instance, deadline);
  while (size > 0) {
    DWORD count = 0;
    const BOOL done =
        WriteFile(instance, bytes, static_cast<DWORD>(size), nullptr, operation.Request());
    const DWORD error = operation.Await(done, &count);
    if (error != ERROR_SUCCESS) return error;
    bytes += count;
    size -= count;
  }
  return ERROR_SUCCESS;
}

// The client's close ends the answer and is no error.
DWORD ReceiveAll(HANDLE instance, Deadline deadline, std::string* received) {
  Operation operation(instance, deadline);
  while (received->size() < kLongestAnswer) {
    char piece[256];
    DWORD count = 0;
    const BOOL done = ReadFile(instance, piece, sizeof piece, nullptr, operation.Request());
    const DWORD error = operation.Await(done, &count);
    if (error == WAIT_TIMEOUT) return error;
    if (error != ERROR_SUCCESS || count == 0) return ERROR_SUCCESS;
    received->append(piece, count);
  }
  return ERROR_SUCCESS;
}

bool Problem(std::string* problem, const char* what, DWORD error) {
  *problem = error == WAIT_TIMEOUT ? std::string(what) + " in time"
                                   : std::string(what) + ": error " + std::to_string(error);
  return false;
}

}  // namespace

struct ServedPipe::Ends {
  std::string name;
  Object free;  // the instance for the next client
};

ServedPipe::ServedPipe() : ends_(std::make_unique<Ends>()) {}
ServedPipe::~ServedPipe() = default;

bool ServedPipe::Open(const std::string& name, std::string* problem) {
  ends_->name = name;
  ends_->free = MakeInstance(name, FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE);
  return ends_->free != nullptr || Problem(problem, "the pipe cannot be created", GetLastError());
}

bool ServedPipe::Exchange(const std::string& question, Deadline deadline, std::string* received,
                          std::string* problem) {
  if (ends_->free == nullptr) {
    *problem = "the pipe has no free instance";
    return false;
  }
  DWORD error = AwaitClient(ends_->free.get(), deadline);
  if (error != ERROR_SUCCESS) return Problem(problem, "the service has not connected", error);
  const Object instance = std::move(ends_->free);
  ends_->free = MakeInstance(ends_->name, FILE_FLAG_OVERLAPPED);
  ULONG client = 0;
  clientProcess_ = GetNamedPipeClientProcessId(instance.get(), &client) ? client : 0;
  error = Send(instance.get(), question.c_str(), question.size() + 1, deadline);
  if (error == ERROR_SUCCESS) error = ReceiveAll(instance.get(), deadline, received);
  return error == ERROR_SUCCESS || Problem(problem, "the service has not answered", error);
}

}  // namespace lab
