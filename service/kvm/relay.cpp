#include "service/kvm/relay.h"

#include <atomic>
#include <cassert>
#include <cstring>

#include "platform/error.h"
#include "platform/thread.h"
#include "service/diagnostics/service_log.h"
#include "service/gateway/listeners.h"
#include "service/kvm/kvm_state.h"
#include "service/kvm/session.h"
#include "service/mailbox/messages.h"

namespace stewardry {

const RelayKind kKvmRelay = {kKvmPort,
                             "New KVM request arrived at Tavrin",
                             "Forwarding KVM request to Mailbox driver",
                             "Response returned for KVM request from Mailbox driver",
                             "Sockread failed or client closed the connection for KVM callback",
                             WriteKVMPacket};

namespace {

constexpr std::size_t kWriteRetries = 100;  // after the first attempt
constexpr std::uint32_t kRetryPauseMs = 100;

// Reads once and sends the bytes to the firmware. A viewer's bytes may be passwords, so they are
// cleared from the stack; the fence keeps the compiler from removing that.
ReadOutcome ForwardToFirmware(Sock sock) {
  ReceiveBuffer receivebuffer;
  std::uint32_t size = 0;
  const ReadOutcome outcome = ForwardOneRead(kKvmRelay, sock, &receivebuffer, &size);
  std::memset(receivebuffer.bytes, 0, size);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  return outcome;
}

// Ends the session of a viewer that has closed. The selector then removes the handler, which closes
// the socket.
std::uint8_t EndByViewer(const Handler* handler, const char* line) {
  LogInfo("%s", line);
  LogInfo("socket address %I64x", handler->sock);
  LogInfo("KVM callback shutdown called");
  FinishKVMSession();
  return 0;
}

// One attempt. It holds the mark only for the write, so a close waits for no retry. Without a
// session's socket it fails like a write to an invalid one.
Result WriteOnce(const std::uint8_t* payload, std::uint32_t length, std::uint64_t* sent) {
  const SlotMark::Use use(&gKvm->gKvmSlotMark);
  return Sock_Write(gKvm->SessionSock(), payload, length, sent);
}

void CountFrame(std::uint32_t length, std::uint64_t sent) {
  const std::uint32_t overall =
      gKvm->gKvmOverallSize.fetch_add(length, std::memory_order_relaxed) + length;
  const std::uint32_t index = gKvm->gKvmSendIndex.fetch_add(1, std::memory_order_relaxed);
  LogInfo(
      "Send index:%lu Send buffer size: %zx; Socket data size: %zx; Match:%s ; Overall size: %x",
      index, length, sent, length == sent ? "Pass" : "Fail", overall);
}

}  // namespace

std::uint8_t KVMCallback(Selector*, Handler* handler, std::uint32_t mask, std::uint64_t) {
  if ((mask & SELECTOR_READ) != 0) {
    const ReadOutcome outcome = ForwardToFirmware(handler->sock);
    if (outcome == ReadOutcome::kNothing) return 1;
    if (outcome == ReadOutcome::kEnded)
      return EndByViewer(handler, "KVM Client closed the connection so returned false");
  }
  if ((mask & SELECTOR_WRITE) != 0) {
    LogInfo("Unexpected write event in KVM callback");
    return 0;
  }
  if ((mask & SELECTOR_REMOVE) != 0) {
    {
      ClosingHandler closing(handler, ReleaseKVMSocket);
      LogInfo("Selector remove called for KVM callback");
      LogInfo("Closing handler Socket");
      closing.CloseSocket();
      LogInfo("Freeing handler");
    }
    LogInfo("Free successful");
  } else if ((mask & SELECTOR_DESTROY) != 0) {
    const ClosingHandler closing(handler, ReleaseKVMSocket);  // nothing serves the session any more
  } else if ((mask & SELECTOR_READ_CLOSE) != 0) {
    return EndByViewer(
        handler, "SELECTOR_READ_CLOSE called. Client closed the connection so returned false");
  }
  LogInfo("Exiting KVM Callback");
  return 1;
}

void WriteKVMRXdata(const std::uint8_t* payload, std::uint32_t length) {
  assert(payload != nullptr);
  if (gKvm->gKvmSocketState.load(std::memory_order_acquire) != kKvmSessionUp) {
    LogInfo("Socket is closed. GetLastError: %d", platform::LastError());
    return;
  }
  // The state is checked once. A session that the other thread ends meanwhile leaves the remaining
  // attempts without a socket. They cannot reach the next session's socket: it needs an enable,
  // which is behind this frame in the mailbox.
  std::uint64_t BytesSentFromSocket = 0;
  std::size_t attempt = 0;
  Result result;
  do {
    if (attempt != 0) {
      platform::Sleep(kRetryPauseMs);
      LogInfo("Retry Count value: %zu. GetLastError: %d.", attempt, platform::LastError());
    }
    result = WriteOnce(payload, length, &BytesSentFromSocket);
    ++attempt;
  } while (attempt <= kWriteRetries && BytesSentFromSocket == 0);
  if (result != RESULT_OK)
    LogInfo("%s", result == RESULT_WOULD_BLOCK ? "KVM Sockwrite Failed because of block"
                                               : "KVM SockWrite Failed");
  if (BytesSentFromSocket == 0) {
    LogInfo("socket write crossed %zu attempts; socket address %I64x", kWriteRetries,
            gKvm->gKvmSocket.load(std::memory_order_relaxed));
    FinishKVMSession();
  }
  CountFrame(length, BytesSentFromSocket);
}

}  // namespace stewardry
