// What the host has told about itself, and how often: the answer of GET / and of the prompt's
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
};

struct Inventory {
  std::optional<std::uint32_t> serviceStatus;
  std::optional<OsRecord> os;
  std::optional<NetworkRecord> network;
  std::optional<IpRecord> ip;  // reports only: an announcement of a connection isn't kept here
  std::optional<std::uint32_t> networkStatus;
  std::optional<std::uint32_t> userPresence;
  Reports reports;
};

// One JSON object on one line; null for what was never reported.
std::string InventoryJson(const Inventory& inventory);

}  // namespace orrin
