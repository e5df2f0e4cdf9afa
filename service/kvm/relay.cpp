// The KVM relay.
#include "service/kvm/relay.h"

#include <cstring>
#include <memory>

#include "platform/error.h"
#include "platform/thread.h"
#include "service/diagnostics/service_log.h"
#include "service/kvm/session.h"
#include "service/mailbox/messages.h"

namespace stewardry {

std::atomic<std::uint32_t> gKvmSendIndex{0};
std::atomic<std::uint32_t> gKvmOverallSize{0};

const RelayKind kKvmRelay = {kKvmPort,
                             "New KVM request arrived at Tavrin",
                             "Forwarding KVM request to Mailbox driver",
                             "Response returned for KVM request from Mailbox driver",
                             "Sockread failed or client closed the connection for KVM callback",
                             WriteKVMPacket};

namespace {

constexpr std::size_t kWriteRetries = 100;  // after the first attempt
constexpr std::uint32_t kRetryPauseMs = 100;

// Reads once and hands the bytes to the firmware. A viewer's bytes may be passwords, so they don't
// stay on the stack; the fence keeps the compiler from leaving the clearing out.
ReadOutcome ForwardToFirmware(Sock sock) {
  ReceiveBuffer receivebuffer;
  std::uint32_t size = 0;
  const ReadOutcome outcome = ForwardOneRead(kKvmRelay, sock, &receivebuffer, &size);
  std::memset(receivebuffer.bytes, 0, size);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  return outcome;
}

// The end that the viewer has brought about. The selector then removes the handler, which closes
// the socket.
std::uint8_t EndByViewer(const Handler* handler, const char* line) {
  LogInfo("%s", line);
  LogInfo("socket address %I64x", handler->sock);
  LogInfo("KVM callback shutdown called");
  FinishKVMSession();
  return 0;
}

// A handler that its selector has let go of. A session whose socket goes with it, as after the
// destruction of a selector, ends: nothing would serve it any more.
class LettingGo {
 public:
  explicit LettingGo(Handler* handler) : handler_(handler) {}
  LettingGo(const LettingGo&) = delete;
  LettingGo& operator=(const LettingGo&) = delete;
  ~LettingGo() { CloseSocket(); }
  void CloseSocket() {
    if (handler_->sock == kInvalidSock) return;
    const platform::StayInThread stay;
    ReleaseKVMSocket(handler_->sock);
    (void)Sock_Close(handler_->sock);  // nothing is left to do with it
    handler_->sock = kInvalidSock;
  }

 private:
  std::unique_ptr<Handler> handler_;
};

void LetGoWithWords(Handler* handler) {
  LettingGo going(handler);
  LogInfo("Selector remove called for KVM callback");
  LogInfo("Closing handler Socket");
  going.CloseSocket();
  LogInfo("Freeing handler");
}

// One attempt. The mark is held for no longer than that, so a close waits for no retry. Without a
// session's socket any more the attempt fails like a write to none.
Result WriteOnce(const std::uint8_t* payload, std::uint32_t length, std::uint64_t* sent) {
  const SlotMark::Use use(&gKvmSlotMark);
  const Sock sock = gKvmSocket.load(std::memory_order_seq_cst);
  return Sock_Write(sock != 0 ? sock : kInvalidSock, payload, length, sent);
}

void KeepBooks(std::uint32_t length, std::uint64_t sent) {
  const std::uint32_t overall =
      gKvmOverallSize.fetch_add(length, std::memory_order_relaxed) + length;
  LogInfo(
      "Send index:%lu Send buffer size: %zx; Socket data size: %zx; Match:%s ; Overall size: %x",
      gKvmSendIndex.load(std::memory_order_relaxed), length, sent, length == sent ? "Pass" : "Fail",
      overall);
  gKvmSendIndex.fetch_add(1, std::memory_order_relaxed);
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
    LetGoWithWords(handler);
    LogInfo("Free successful");
  } else if ((mask & SELECTOR_DESTROY) != 0) {
    const LettingGo gone(handler);
  } else if ((mask & SELECTOR_READ_CLOSE) != 0) {
    return EndByViewer(
        handler, "SELECTOR_READ_CLOSE called. Client closed the connection so returned false");
  }
  LogInfo("Exiting KVM Callback");
  return 1;
}

void WriteKVMRXdata(const std::uint8_t* payload, std::uint32_t length) {
  if (gKvmSocketState.load(std::memory_order_acquire) != kKvmSessionUp) {
    LogInfo("Socket is closed. GetLastError: %d", platform::LastError());
    return;
  }
  // The state is looked at once. A session that the other thread ends meanwhile leaves the other
  // attempts without a socket. They can't reach the next session's: it needs an enable, which is
  // behind this frame in the mailbox.
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
            gKvmSocket.load(std::memory_order_relaxed));
    FinishKVMSession();
  }
  KeepBooks(length, BytesSentFromSocket);
}

}  // namespace stewardry
