// The messages to the firmware, one operation for each control code. Each blocks until the driver
// has finished, without a time-out, logs its own failure, and may be called from any thread. A
// result of 1 means that the request was not started; 0 means that it was, whatever its outcome.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/socket.h"
#include "service/mailbox/records.h"
#include "service/mailbox/shared_record.h"

namespace stewardry {

// One read of a relay. The bytes at `sendBuffer` cross the mailbox; this block does not.
struct packet {
  platform::SocketValue socket;  // the source of the bytes, for the caller's use
  const void* sendBuffer;
  std::uint32_t sendSize;
  void* replyBuffer;        // null on both relays
  std::uint32_t replySize;  // in: bytes at replyBuffer; out: the device's byte count
};

inline constexpr char kVersionNotAvailable[] = "Not Available";

// Returns true if the firmware was provisioned for DASH at the last report.
bool IsProvisioned();

// Stores `text`, cut to 63 characters, as the version text of the record.
void SetVersionText(SharedRecord<TavrinVersionInfo>* record, const char* text);

// The status byte of GetOrrinStatus.
constexpr std::uint8_t kOrrinNoAnswer = 0;
constexpr std::uint8_t kOrrinDown = 2;  // the firmware was down and needs the whole report again

// The values of WriteTavrinStatus.
constexpr std::uint32_t kServiceUp = 1;
constexpr std::uint32_t kServiceGoingDown = 2;

// The values of SendNetworkStatus.
constexpr std::uint32_t kNetworkNone = 0;
constexpr std::uint32_t kNetworkLan = 1;
constexpr std::uint32_t kNetworkWlan = 2;

// Sends sendSize bytes of the HTTPS peer and stores the device's byte count in replySize. Returns
// 0 or 1.
std::uint32_t WriteDASHPacket(packet* data);
// Sends sendSize bytes of the KVM peer by direct transfer. Returns 0 or 1.
std::uint32_t WriteKVMPacket(packet* data);
// Reads the firmware's status byte; *status changes only on success. Returns 0 or 1.
std::uint32_t GetOrrinStatus(std::uint8_t* status);
// Reads the version record and stores its text, provisionStatus and KVMStatus in *target, which is
// unchanged on failure. A short answer is a failure: the missing fields would read as a host that
// is not provisioned.
void GetTavrinVersion(SharedRecord<TavrinVersionInfo>* target);
// Sends kServiceUp or kServiceGoingDown. Returns 0 or 1.
std::uint32_t WriteTavrinStatus(const std::uint32_t* status);
void WriteOsInfo(const OperationSysSInfo* info);
void WriteNwInfo(const NetworkInfo* info);
void SendIPCompleteInfomartion(const IPInfo* info);
// Sends kNetworkNone, kNetworkLan or kNetworkWlan. SendSystemBooted (service/inventory/
// link_watch.h) determines the value.
void SendNetworkStatus(std::uint32_t status);
// Reports the end of the connection on `port`, 664 or 22.
void SendCloseSocketcmd(std::uint16_t port);
// No flow of the service calls these two.
void WriteFanInfo(const std::uint32_t* info);
void WriteSensorInfo(const SensorInfo* info);
// Returns the keyboard and mouse region to the driver. Returns 0 or 1.
std::uint32_t DeAllocateKVM_KB_MB_Buffers();
// Reports that the host enters S5. A plain call: the firmware has the report when it returns.
// Returns 0 or 1.
std::uint32_t SetS5Status();

}  // namespace stewardry
