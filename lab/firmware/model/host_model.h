// Fills the repository from what the host has reported through the mailbox, and from what the
// firmware knows of itself.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lab/firmware/core/inventory.h"
#include "lab/firmware/model/repository.h"

namespace orrin {

// Who gets the indications.
struct SubscriptionView {
  std::string id;
  std::string filter;       // the InstanceID of a CIM_FilterCollection
  std::string destination;  // a URL
  std::string start;        // a date-time in its fixed form
  std::uint64_t seconds = 0;
  bool operator==(const SubscriptionView&) const = default;
};

inline constexpr std::uint16_t kLowBattery = 10;  // percent, and less

// What the firmware knows of itself.
struct FirmwareView {
  std::string version;
  bool hasHost = false;                              // a mailbox end is connected
  bool isKvmEnabled = false;                         // by a console, or at the prompt
  std::optional<std::uint16_t> batteryPercent = {};  // of a host with a battery
  bool operator==(const FirmwareView&) const = default;
};

// What a console may subscribe to: the indications of a class.
struct FilterRow {
  const char* id;  // InstanceID of its CIM_FilterCollection
  const char* name;
  const char* className;
};
inline constexpr FilterRow kFilters[] = {
    {"orrin:all", "Everything", "CIM_Indication"},
    {"orrin:alerts", "Alerts of the host and the firmware", "CIM_AlertIndication"},
    {"orrin:changes", "Changes of the objects", "CIM_InstIndication"},
};

// Replaces the instances that the reports describe. An instance whose report has not come since the
// start stays as it was restored.
void ShowHost(const Inventory& inventory, const FirmwareView& firmware, Repository* repository);
// Shows the subscription, or that there is none.
void ShowSubscription(const std::optional<SubscriptionView>& subscription, Repository* repository);

}  // namespace orrin
