// Fills the repository from what the host has reported through the mailbox, and from what the
// firmware knows of itself.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lab/firmware/core/inventory.h"
#include "lab/firmware/model/repository.h"

namespace orrin {

// What the firmware knows of itself.
struct FirmwareView {
  std::string version;
  bool hasHost = false;                         // a mailbox end is connected
  bool isKvmEnabled = false;                    // by a console, or at the prompt
  std::optional<std::uint16_t> batteryPercent;  // of a host with a battery
};

// Replaces the instances that the reports describe. An instance whose report has not come since the
// start stays as it was restored.
void ShowHost(const Inventory& inventory, const FirmwareView& firmware, Repository* repository);

}  // namespace orrin
