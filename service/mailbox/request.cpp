#include "service/mailbox/request.h"

#include <cassert>
#include <iterator>
#include <span>
#include <string_view>
#include <utility>

#include "platform/device.h"
#include "platform/error.h"
#include "platform/event.h"
#include "platform/thread.h"
#include "service/diagnostics/service_log.h"
#include "service/mailbox/mailbox_link.h"

namespace stewardry {

namespace {

// Fixed log texts, here and in the table; their wording must not change.
constexpr std::string_view kEventFailed =
    "Error creating overlapped event for interrupt thread - with error: %u";
constexpr std::string_view kEventFailedErro =
    "Error creating overlapped event for interrupt thread - with erro: %u";
constexpr std::string_view kStartFailed = "Asynchronous %s command failed with error: %u";
constexpr std::string_view kStartFailedErro = "Asynchronous %s command failed with erro: %u";
constexpr std::string_view kWaitFailedText = "WaitForSingleObject unexpected return with error: %u";
constexpr std::string_view kFinishFailed = "GetOverlappedResult failed for %s with error: %u";
constexpr std::string_view kFinishFailedUnnamed = "GetOverlappedResult failed with error: %u";
constexpr std::string_view kFinished = "Asynchronous IO completed for %s readbytes is %d";

// The texts of one operation's log lines. `start` and `finishFailed` take the name and the error,
// `event` the error, `wait` the wait's result, `finished` the name and the byte count.
struct Wording {
  Operation operation;
  const char* name;
  std::string_view invalidHandle;
  std::string_view event = kEventFailed;
  std::string_view start = kStartFailed;
  std::string_view wait = kWaitFailedText;
  std::string_view finishFailed = kFinishFailed;  // empty: kFinishFailedUnnamed, without the name
  std::string_view finished = kFinished;
};

constexpr Wording BatteryWording(Operation operation) {
  return {operation,
          "batteryinfo",
          "Failed",
          kEventFailedErro,
          "Asynchronous %s for battery command failed for battery with error: %u",
          "WaitForSingleObject unexpected return for battery %u",
          "GetOverlappedResult failed for %s with error: %u for battery",
          "Asynchronous IO completed readbytes for %s for battery is %d"};
}

constexpr Wording kWording[] = {
    {Operation::kGetOrrinStatus, "GetOrrinStatus", "Invalid Handle"},
    {Operation::kGetTavrinVersion, "GetTavrinVersion", "Failed"},
    {Operation::kWriteTavrinStatus, "WriteTavrinStatus", "Invalid handle"},
    {Operation::kWriteDASHPacket, "WriteDASHPacket", "Error Invalid Handle", kEventFailed,
     kStartFailed, "WaitForSingleObject unexpected return code: %u"},
    {Operation::kWriteKVMPacket, "WriteKVMPacket", "Invalid Handle"},
    {Operation::kWriteOsInfo, "WriteOsInfo", "Failed: Invalid handle", kEventFailed, kStartFailed,
     "WaitForSingleObject unexpected return with erro: %u"},
    {Operation::kWriteNwInfo, "WriteNwInfo", "Failed: Invalid handle",
     "error creating overlapped event for interrupt thread - with erro: %u", kStartFailed,
     "WaitForSingleObject unexpected return %u"},
    {Operation::kSendIPCompleteInfomartion, "SendIPCompleteInfomartion", "Failed: Invalid handle",
     kEventFailed, kStartFailedErro, "WaitForSingleObject unexpected return with eror: %u"},
    {Operation::kSendCloseSocketcmd, "SendCloseSocketcmd", "Failed: Invalid handle",
     kEventFailedErro, kStartFailedErro},
    {Operation::kSendSystemBooted, "SendSystemBooted", "Failed: Invalid handle", kEventFailed,
     kStartFailedErro},
    {Operation::kInitializeKeyboardMousePointers,
     "InitializeKeyboardMousePointers",
     "Invalid Handle",
     "Error creating event for interrupt thread - GetLastError: %u",
     kStartFailed,
     kWaitFailedText,
     {}},
    {Operation::kDeAllocateKVM_KB_MB_Buffers, "DeAllocateKVM_KB_MB_Buffers", "Invalid Handle"},
    {Operation::kWriteLogBuffer, "WriteLogBuffer", "Invalid Handle"},
    {Operation::kDeAllocateLogBuffer, "DeAllocateLogBuffer", "Invalid Handle"},
    {Operation::kUserPresence, "userinfo", "Failed", kEventFailed,
     "Asynchronous %s command failed for userlogged with error: %u",
     "WaitForSingleObject unexpected return for userlogged %u",
     "GetOverlappedResult failed for %s with error: %u for userlogged",
     "Asynchronous IO completed for %s readbytes is %d for userlogged"},
    BatteryWording(Operation::kBatteryCritical),
    BatteryWording(Operation::kBatteryDrained),
    // No wording is fixed for these two; they have the most common one.
    {Operation::kWriteFanInfo, "WriteFanInfo", "Invalid Handle"},
    {Operation::kWriteSensorInfo, "WriteSensorInfo", "Invalid Handle"},
};

// Returns the operation's index in kWording, or its size for a plain operation.
constexpr std::size_t WordingIndex(Operation operation) {
  std::size_t i = 0;
  while (i < std::size(kWording) && kWording[i].operation != operation) ++i;
  return i;
}

constexpr bool EachOverlappedOperationHasWording() {
  for (const ControlCode& row : kControlCodes)
    if ((row.mode == CallMode::kOverlapped) != (WordingIndex(row.operation) < std::size(kWording)))
      return false;
  return true;
}
static_assert(EachOverlappedOperationHasWording());

// Logs a text of the table, which is not checked against its arguments when it is compiled.
template <class... Args>
void LogWording(std::string_view text, const Args&... args) {
  const FormatArg list[] = {FormatArg(args)..., FormatArg()};
  ServiceLog_Write(LogHeader::kInfo, text, std::span(list, sizeof...(Args)));
}

// A request in flight, with its event. If its thread is ended while it waits, the destructor
// cancels the request and waits for it, since the record is on the thread's stack.
class Flight {
 public:
  explicit Flight(platform::Event event) : event_(std::move(event)) {
    platform::SetRequestEvent(&record_, event_);
  }
  Flight(const Flight&) = delete;
  Flight& operator=(const Flight&) = delete;
  ~Flight() {
    if (!started_) return;
    const platform::StayInThread stay;
    std::uint32_t bytes;
    platform::DeviceHandle& device = gMailboxLink->gRequestDevice;
    (void)platform::CancelIoEx(device, &record_);  // it may have finished meanwhile
    (void)platform::GetOverlappedResult(device, &record_, &bytes, true);
  }

  // Returns true if the device pends the request. One that finishes at once is a failure: the
  // driver must pend each request.
  bool Start(std::uint32_t code, const void* input, std::uint32_t inputSize, void* output,
             std::uint32_t outputSize) {
    assert(!started_);
    const bool finished =
        platform::DeviceIoControl(gMailboxLink->gRequestDevice, code, input, inputSize, output,
                                  outputSize, nullptr, &record_);
    started_ = !finished && platform::LastError() == platform::kErrorIoPending;
    return started_;
  }
  std::uint32_t Wait() {
    assert(started_);
    return platform::WaitForSingleObject(event_, platform::kInfinite);
  }
  // Stores the device's byte count. Returns false if the request failed.
  bool ReadResult(std::uint32_t* bytes) {
    const bool done =
        platform::GetOverlappedResult(gMailboxLink->gRequestDevice, &record_, bytes, false);
    started_ = !done && platform::LastError() == platform::kErrorIoIncomplete;
    return done;
  }

 private:
  platform::Event event_;
  platform::RequestRecord record_{};
  bool started_ = false;
};

void AwaitOutcome(Flight* flight, const Wording& wording, RequestOutcome* outcome) {
  const std::uint32_t waited = flight->Wait();
  if (waited != platform::kWaitObject0) return LogWording(wording.wait, waited);
  if (!flight->ReadResult(&outcome->bytes)) {
    const std::uint32_t error = platform::LastError();
    if (wording.finishFailed.empty()) return LogWording(kFinishFailedUnnamed, error);
    return LogWording(wording.finishFailed, wording.name, error);
  }
  outcome->completed = true;
  if (outcome->bytes != 0) LogWording(wording.finished, wording.name, outcome->bytes);
}

}  // namespace

std::uint32_t RunRequest(Operation operation, const void* input, std::uint32_t inputSize,
                         void* output, std::uint32_t outputSize, RequestOutcome* outcome) {
  const ControlCode& row = ControlCodeFor(operation);
  assert(row.mode == CallMode::kOverlapped);
  assert(row.inputSize == inputSize || row.inputSize == kSizeOfRequest);
  assert(inputSize <= kMaxFrameSize);
  const Wording& wording = kWording[WordingIndex(operation)];
  *outcome = RequestOutcome{};
  if (!gMailboxLink->gRequestDevice) {
    LogWording(wording.invalidHandle);
    return 1;
  }
  platform::Event event = platform::CreateEventA(false, false);
  if (!event) {
    LogWording(wording.event, platform::LastError());
    return 1;
  }
  Flight flight(std::move(event));
  if (!flight.Start(row.code, input, inputSize, output, outputSize)) {
    LogWording(wording.start, wording.name, platform::LastError());
    return 1;
  }
  AwaitOutcome(&flight, wording, outcome);
  return 0;
}

std::uint32_t RunPlainCall(Operation operation, const void* input, std::uint32_t inputSize,
                           std::uint32_t* returned) {
  const ControlCode& row = ControlCodeFor(operation);
  assert(row.mode == CallMode::kPlain);
  *returned = 0;
  if (!gMailboxLink->gRequestDevice) return 1;
  const bool done = platform::DeviceIoControl(gMailboxLink->gRequestDevice, row.code, input,
                                              inputSize, nullptr, 0, returned, nullptr);
  return done ? 0 : 1;
}

}  // namespace stewardry
