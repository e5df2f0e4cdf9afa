// The KVM session.
#include "service/kvm/session.h"

#include <memory>

#include "service/diagnostics/service_log.h"

namespace stewardry {

std::atomic<std::uint8_t> gKvmEnabled{0};
std::atomic<std::uint32_t> gKvmTrustedIP{0};
std::atomic<std::uint32_t> gKvmTrustedPort{0};
std::atomic<std::uint8_t> gKeyboardMouseReady{0};

std::uint8_t ListenKVMCallback(Selector*, Handler* handler, std::uint32_t mask, std::uint64_t) {
  if ((mask & (SELECTOR_REMOVE | SELECTOR_DESTROY)) != 0) {
    std::unique_ptr<Handler> owned(handler);
    (void)Sock_Close(handler->sock);  // nothing is left to do with it
    return 1;
  }
  if (gKvmEnabled.load(std::memory_order_relaxed) != 1) {
    LogInfo("KVM disabled. Incoming SSH connection dropped.");
    return 0;
  }
  return 1;
}

}  // namespace stewardry
