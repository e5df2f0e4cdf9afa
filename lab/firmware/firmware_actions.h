// What the firmware does with each operation: its text in the trace, its effect, its answer.
#pragma once

#include <memory>
#include <string>

#include "lab/firmware/core/inventory.h"
#include "lab/firmware/core/trace.h"
#include "lab/firmware/dash/dash_session.h"
#include "lab/firmware/dash/tls_records.h"
#include "lab/firmware/firmware.h"
#include "lab/firmware/kvm/kvm_console.h"

namespace orrin {

// What the operations read and change. Trace, TLS context and outputs outlive it.
struct ActionContext {
  ActionContext(Trace& firmwareTrace, const TlsContext& tlsContext, DashOutput& toDash,
                KvmOutput& toKvm)
      : trace(firmwareTrace), tls(tlsContext), dashOutput(toDash), kvm(toKvm) {}

  // Records what a command for the host means to the objects.
  void NoteCommand(std::uint8_t code);

  Trace& trace;
  const TlsContext& tls;
  DashOutput& dashOutput;
  FirmwareFacts facts;
  Inventory inventory;
  WsmanService wsman;
  HttpUsers users;
  IpRecord console{};                 // of the connection announced last for port 664
  std::unique_ptr<DashSession> dash;  // its session
  TlsRecordWatch fromPeer;
  TlsRecordWatch toPeer;
  KvmConsole kvm;
};

// An operation in use. Each function may be null, and requires an input that FitsInput.
struct Action {
  std::uint32_t code;
  std::string (*describe)(ActionContext& context, ByteView input);
  void (*act)(ActionContext& context, ByteView input);
  Bytes (*answer)(ActionContext& context, ByteView input);
};

// Returns null for an operation that has only its name in the trace and an empty answer.
const Action* FindAction(std::uint32_t code);
// Returns a request of any code and input in words.
std::string DescribeRequest(ActionContext& context, std::uint32_t code, ByteView input,
                            std::uint32_t outputSize);

}  // namespace orrin
