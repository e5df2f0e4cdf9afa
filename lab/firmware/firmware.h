// The firmware itself: it takes what the mailbox end brings, answers requests, and leaves commands
// for the host. It does no input or output of its own; the loop in simulator.h moves the bytes.
//
// A request is acted on when it is answered: one that is held by `silence` is so far only printed,
// as a firmware that is stuck has not looked at it either.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "lab/firmware/core/inventory.h"
#include "lab/firmware/core/link.h"
#include "lab/firmware/core/operations.h"
#include "lab/firmware/core/records.h"
#include "lab/firmware/core/trace.h"
#include "lab/firmware/dash/dash_session.h"
#include "lab/firmware/dash/tls_records.h"
#include "lab/firmware/kvm/kvm_console.h"

namespace orrin {

// What the firmware says of itself. The prompt changes it.
struct FirmwareFacts {
  std::string version = "2.4.1.0";
  bool isProvisioned = true;
  std::uint32_t kvmStatus = 0;
  std::uint8_t orrinStatus = 1;
};

// A failure that requests shall end with.
struct Failure {
  std::uint32_t error;                     // a Windows error number
  std::optional<std::uint64_t> countLeft;  // nothing: until taken back
};

// One thread. What it is given outlives it.
class Firmware : public DashOutput, public KvmOutput {
 public:
  Firmware(Trace& trace, LinkWriter& link, const TlsContext& tls);

  // --- the link ---
  void MailboxArrived();
  void MailboxLeft(const std::string& why);
  bool HasMailbox() const { return hasMailbox_; }
  // One message of the mailbox end. False: it is malformed, and the link must be dropped.
  bool Take(const LinkMessage& message);
  // Makes more of a long answer while there is room, and asks again what has waited long enough.
  void Pump();
  // Milliseconds until Pump has something to do of itself; -1: nothing.
  int MillisecondsLeft() const { return kvm_.MillisecondsLeft(); }

  // --- the prompt ---
  FirmwareFacts& Facts() { return facts_; }
  const Inventory& Reported() const { return inventory_; }
  KvmConsole& Kvm() { return kvm_; }
  // Leaves a command for the host; false (said in the trace) without a mailbox end or when the
  // payload is too long for a frame.
  bool SendCommandFrame(std::uint8_t code, ByteView payload);
  // Any bytes as a frame, at most lablink::kMaxFrame.
  bool SendRawFrame(ByteView frame);
  bool FailRead(std::uint32_t error);
  // The caller has checked the bounds of the region.
  bool Poke(std::uint64_t region, std::uint32_t offset, ByteView bytes);
  bool Peek(std::uint64_t region, std::uint32_t offset, std::uint32_t count);
  // Holds requests unanswered or answers those held; a null operation means all.
  void SetSilence(const Operation* operation, bool on);
  // Error 0 takes a failure back; a null operation means all.
  void SetFailure(const Operation* operation, std::uint32_t error,
                  std::optional<std::uint64_t> count);

  // --- DashOutput, KvmOutput ---
  void SendDashBytes(ByteView bytes) override;
  void SendKvmBytes(ByteView bytes) override;
  void PokeInput(std::uint32_t offset, ByteView bytes) override;
  void PeekInput(std::uint32_t offset, std::uint32_t count) override;
  void SendCommand(std::uint8_t code) override;
  bool HasRoom() const override;
  void Say(const std::string& words) override;

 private:
  struct Request {
    std::uint64_t id;
    std::uint32_t code;
    std::uint32_t outputSize;
    Bytes input;
  };
  // What the firmware does with an operation: describe it, act on it, answer it. Any may be null.
  struct Action {
    std::uint32_t code;
    std::string (Firmware::*describe)(ByteView input);
    void (Firmware::*act)(ByteView input);
    Bytes (Firmware::*answer)(ByteView input);
  };
  static const Action kActions[];
  static const Action* FindAction(std::uint32_t code);

  bool TakeRequest(const LinkMessage& message);
  void TakeHandle(const lablink::Head& head);
  void TakeCancel(const lablink::Head& head);
  void TakeRead(const lablink::Head& head);
  void TakeMemory(const LinkMessage& message);
  bool IsSilent(std::uint32_t code) const;
  void Serve(const Request& request);
  std::uint32_t TakeFailure(std::uint32_t code);
  void Complete(const Request& request, std::uint32_t error, ByteView output);
  void AnswerHeld();
  bool SendFrame(ByteView frame, const std::string& words);

  std::string DescribeRequest(const Request& request);
  std::string DescribeU32(ByteView input, std::string (*words)(std::uint32_t));
  std::string DescribeStatus(ByteView input);
  std::string DescribeBooted(ByteView input);
  std::string DescribePresence(ByteView input);
  std::string DescribeS5(ByteView input);
  std::string DescribeOs(ByteView input);
  std::string DescribeNetwork(ByteView input);
  std::string DescribeIp(ByteView input);
  std::string DescribeClose(ByteView input);
  std::string DescribeDash(ByteView input);
  std::string DescribeKvm(ByteView input);

  void ActOnStatus(ByteView input);
  void ActOnBooted(ByteView input);
  void ActOnPresence(ByteView input);
  void ActOnOs(ByteView input);
  void ActOnNetwork(ByteView input);
  void ActOnIp(ByteView input);
  void ActOnClose(ByteView input);
  void ActOnDash(ByteView input);
  void ActOnKvm(ByteView input);
  void ActOnReturnedBuffers(ByteView input);
  void BeginDash();
  void EndDash(const std::string& why);

  Bytes AnswerVersion(ByteView input);
  Bytes AnswerStatus(ByteView input);
  Bytes AnswerRegion(ByteView input);
  Bytes AnswerInputRegion(ByteView input);
  Bytes AnswerEcho(ByteView input);

  Trace& trace_;
  LinkWriter& link_;
  const TlsContext& tls_;
  bool hasMailbox_ = false;
  FirmwareFacts facts_;
  Inventory inventory_;

  std::uint64_t readsArmed_ = 0;
  std::uint64_t readsSpent_ = 0;
  bool saidArmed_ = false;

  bool silentAll_ = false;
  std::set<std::uint32_t> silent_;
  std::map<std::uint32_t, Failure> failures_;
  std::optional<Failure> failureOfAll_;
  std::deque<Request> held_;
  std::size_t heldBytes_ = 0;

  // Who asked for memory: true the console's rings, false the prompt. Answers come in order.
  std::deque<bool> peeks_;

  // The session of the connection announced last for port 664, and what stands behind port 22.
  std::unique_ptr<DashSession> dash_;
  KvmConsole kvm_;
  TlsRecordWatch fromPeer_;
  TlsRecordWatch toPeer_;
};

}  // namespace orrin
