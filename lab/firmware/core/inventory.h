// What the host has reported about itself, and how often: the answer of GET / and of the prompt's
// `inventory`. Only the last report of each kind is kept.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lab/firmware/core/records.h"

namespace orrin {

struct Reports {
  std::uint64_t serviceStatus = 0;
  std::uint64_t os = 0;
  std::uint64_t network = 0;
  std::uint64_t ip = 0;
  std::uint64_t networkStatus = 0;
  std::uint64_t userPresence = 0;
  bool operator==(const Reports&) const = default;
};

struct Inventory {
  std::optional<std::uint32_t> serviceStatus;
  std::optional<OsRecord> os;
  std::optional<NetworkRecord> network;
  std::optional<IpRecord> ip;  // of a report; announcements of connections are not kept
  std::optional<std::uint32_t> networkStatus;
  std::optional<std::uint32_t> userPresence;
  Reports reports;
};

// Returns one JSON object on one line; null for what was never reported.
std::string InventoryJson(const Inventory& inventory);

}  // namespace orrin
