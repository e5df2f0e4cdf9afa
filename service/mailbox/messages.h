// Everything that the service says to the firmware or asks it, one operation for each control code.
// Each waits until the driver has finished, without a time-out, logs its own failure, and may be
// called from any thread. A result of 1 means that the request was not started; 0 says nothing
// about its outcome.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/socket.h"
#include "service/mailbox/shared_record.h"

namespace stewardry {

struct OperationSysSInfo;  // service/inventory/records.h
struct NetworkInfo;
struct IPInfo;

// What a relay hands over: the bytes pointed to go to the firmware, the block itself does not.
struct packet {
  platform::SocketValue socket;  // where the data came from, for the caller's use
  const void* sendBuffer;
  std::uint32_t sendSize;
  void* replyBuffer;        // null on both relays
  std::uint32_t replySize;  // in: room at replyBuffer; out: the byte count that the device reported
};

// The firmware's answer to GetTavrinVersion, little-endian, 80 bytes.
struct TavrinVersionInfo {
  char version[64];               // zero-terminated
  std::uint32_t provisionStatus;  // 2: DASH provisioning is complete
  std::uint32_t uECAbsent;
  std::uint32_t dummy;
  std::uint32_t KVMStatus;  // 1200: the WLAN firmware authentication failed
};
static_assert(sizeof(TavrinVersionInfo) == 80 &&
              offsetof(TavrinVersionInfo, provisionStatus) == 64 &&
              offsetof(TavrinVersionInfo, KVMStatus) == 76);

constexpr std::uint32_t kProvisioned = 2;
inline constexpr char kVersionNotAvailable[] = "Not Available";

// What the firmware last said of itself. Written by the status report, on whichever thread runs it.
extern SharedRecord<TavrinVersionInfo> gTavrinVersionInfo;

// True when the firmware has been provisioned for DASH.
bool IsProvisioned();

// Puts `text` (cut to 63 characters) into the version text of the record.
void SetVersionText(SharedRecord<TavrinVersionInfo>* record, const char* text);

// The status byte of GetOrrinStatus.
constexpr std::uint8_t kOrrinNoAnswer = 0;
constexpr std::uint8_t kOrrinDown = 2;  // it was down and must be told everything again

// The values of WriteTavrinStatus.
constexpr std::uint32_t kServiceUp = 1;
constexpr std::uint32_t kServiceGoingDown = 2;

// The connection word of SendSystemBooted.
constexpr std::uint32_t kNetworkNone = 0;
constexpr std::uint32_t kNetworkLan = 1;
constexpr std::uint32_t kNetworkWlan = 2;

// sendSize bytes from the HTTPS peer. 0 or 1; replySize gets the device's byte count.
std::uint32_t WriteDASHPacket(packet* data);
// sendSize bytes from the KVM peer, by direct transfer. 0 or 1.
std::uint32_t WriteKVMPacket(packet* data);
// The firmware's status byte; *status changes only on success. 0 or 1.
std::uint32_t GetOrrinStatus(std::uint8_t* status);
// Asks for the version record and keeps its text, provisionStatus and KVMStatus in *target, which
// stays as it was on failure. An answer that isn't whole is a failure: what it lacks would read as
// a host that isn't provisioned.
void GetTavrinVersion(SharedRecord<TavrinVersionInfo>* target);
// 4 bytes, kServiceUp or kServiceGoingDown. 0 or 1.
std::uint32_t WriteTavrinStatus(const std::uint32_t* status);
void WriteOsInfo(const OperationSysSInfo* info);
void WriteNwInfo(const NetworkInfo* info);
void SendIPCompleteInfomartion(const IPInfo* info);
// The connection word that SendSystemBooted (service/inventory/link_watch.h) has worked out.
void SendNetworkStatus(std::uint32_t status);
// 664 or 22: that connection has gone. 2 bytes.
void SendCloseSocketcmd(std::uint16_t port);
// 4 and 32 bytes. No flow of the service sends them.
void WriteFanInfo(const std::uint32_t* info);
struct SensorInfo {
  std::uint8_t bytes[32];
};
void WriteSensorInfo(const SensorInfo* info);
// Gives the keyboard and mouse region back to the driver. 0 or 1.
std::uint32_t DeAllocateKVM_KB_MB_Buffers();
// The host is going to S5: a plain call, so the firmware has it when this returns. 0 or 1.
std::uint32_t SetS5Status();

}  // namespace stewardry
