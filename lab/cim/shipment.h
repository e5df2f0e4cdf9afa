// A message on its way to another process, as the pages of its batch. The library leaves the
// framing to whoever ships; this is one for two processes of one machine that have a socket between
// them. Little-endian throughout.
//
//   head        ShipmentHead
//   page list   pageCount x BatchPageInfo: where each page lay at the sender, and its size
//   pages       their bytes in the order of the list, one behind the other
//
// What arrives is anybody's: all sizes are bounded before memory is taken for them, and the rest is
// Message_Restore's to judge.
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

// Makes the sending form of `message`, which must have everything in its own batch, and writes it
// to a blocking socket. True when the socket took it all. The message stays the caller's.
bool Shipment_Send(stewardry::Sock sock, stewardry::cim::Message* message);

// Reads one shipment from a blocking socket and restores it. Empty with the message, which the
// caller gives back with Message_Drop; else what was wrong, in words, and nothing is left behind.
const char* Shipment_Receive(stewardry::Sock sock, stewardry::cim::Message** message);

}  // namespace cim_ship
