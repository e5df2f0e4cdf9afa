// The shipment of a message to another process, as the pages of its batch. The library defines no
// framing; this is a framing for two processes of one machine with a socket between them. All
// numbers are little-endian.
//
//   head        ShipmentHead
//   page list   pageCount x BatchPageInfo: where each page lay at the sender, and its size
//   pages       their bytes in the order of the list
//
// Received bytes are not trusted: all sizes are bounded before memory is allocated for them, and
// Message_Restore checks the rest.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cim/message/message.h"
#include "sock/sock.h"

namespace cim_ship {

struct ShipmentHead {
  std::uint32_t magic;  // kShipmentMagic
  std::uint32_t pageCount;
  std::uint64_t messageAddress;  // at the sender, inside one of its pages
};
static_assert(sizeof(ShipmentHead) == 16 && offsetof(ShipmentHead, messageAddress) == 8);

constexpr std::uint32_t kShipmentMagic = 0x50494853;  // "SHIP"
constexpr std::uint32_t kMaxPages = 4096;
constexpr std::uint64_t kMaxShipment = 16 * 1024 * 1024;  // bytes of all pages

// Creates the sending form of `message`, which must have everything in its own batch, and writes it
// to a blocking socket. Returns true if all of it was written. The message stays the caller's.
bool Shipment_Send(stewardry::Sock sock, stewardry::cim::Message* message);

// Reads one shipment from a blocking socket and restores it. Returns null and stores the message,
// which the caller releases with Message_Drop; on failure returns a text that describes the fault.
const char* Shipment_Receive(stewardry::Sock sock, stewardry::cim::Message** message);

}  // namespace cim_ship
