// The firmware itself: it handles the mailbox end's messages, answers requests, and sends commands
// to the host. It does no input or output of its own; the loop in prompt/simulator.cpp moves the
// bytes.
//
// A request takes effect when it is answered: one that is held by `silence` is only printed, as by
// a firmware that is stuck.
#pragma once

#include <algorithm>
#include <memory>
#include <optional>
#include <string>

#include "lab/firmware/core/inventory.h"
#include "lab/firmware/core/link.h"
#include "lab/firmware/core/operations.h"
#include "lab/firmware/core/trace.h"
#include "lab/firmware/dash/http_users.h"
#include "lab/firmware/dash/tls_context.h"
#include "lab/firmware/kvm/kvm_console.h"
#include "lab/firmware/model/host_model.h"
#include "lab/firmware/wsman/wsman.h"

namespace orrin {

// What the firmware reports about itself. The prompt changes it.
struct FirmwareFacts {
  FirmwareView view{"2.4.1.0"};  // what its objects show
  bool isProvisioned = true;
  std::uint32_t kvmStatus = 0;
  std::uint8_t orrinStatus = 1;
};

// Returns the size of a shared region, or 0 if there is no such region.
std::uint32_t RegionSize(std::uint64_t region);

// Returns the sooner of two poll times, where -1 is never.
constexpr int Sooner(int one, int other) {
  return one < 0 || other < 0 ? std::max(one, other) : std::min(one, other);
}

struct FirmwareState;

// One thread. Trace, link and TLS context outlive it.
class Firmware {
 public:
  Firmware(Trace& trace, LinkWriter& link, const TlsContext& tls);
  ~Firmware();

  // --- for the link ---
  void HandleMailboxArrival();
  void HandleMailboxLoss(const std::string& why);
  // Handles a message of the mailbox end. Returns false if it is malformed: the link must be
  // dropped.
  bool HandleMessage(const LinkMessage& message);
  // Continues a long answer while there is room, and repeats requests that are due.
  void Pump();
  // Returns the milliseconds until Pump is due without an event, or -1.
  int MillisecondsLeft() const;

  // --- for the prompt ---
  FirmwareFacts& Facts();
  // Sets the charge of the host's battery, or that it has none. The mailbox has no such report.
  void SetBattery(std::optional<std::uint16_t> percent);
  const Inventory& Reported() const;
  KvmConsole& Kvm();
  WsmanService& Wsman();
  HttpUsers& Users();
  // Sends a command to the host. Without a mailbox end, or with a payload too long for a frame,
  // adds a line to the trace instead.
  void SendCommandFrame(std::uint8_t code, ByteView payload);
  // Sends any bytes as a frame, at most lablink::kMaxFrame.
  void SendRawFrame(ByteView frame);
  // The next three return false if no mailbox end is connected.
  bool FailRead(std::uint32_t error);
  // Require a place within the region.
  bool Poke(std::uint64_t region, std::uint32_t offset, ByteView bytes);
  bool Peek(std::uint64_t region, std::uint32_t offset, std::uint32_t count);
  // Holds requests unanswered, or answers those held. A null operation means all.
  void SetSilence(const Operation* operation, bool on);
  // Ends the next `count` requests with a Windows error, or all if there is no count. Error 0
  // removes the failure. A null operation means all.
  void SetFailure(const Operation* operation, std::uint32_t error,
                  std::optional<std::uint64_t> count);

 private:
  std::unique_ptr<FirmwareState> state_;
};

}  // namespace orrin
