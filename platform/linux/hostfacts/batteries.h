// The host's batteries, from /sys/class/power_supply. WMI and the battery devices both report this
// list, so they agree.
//
// `batteries.txt` in the lab folder replaces the host's list: one battery a line, first its name,
// then words of these forms, in any order:
//   chemistry=LION designed=50000 full=45000 capacity=20000 voltage=12000 rate=-8000 cycles=120
//   online charging shortterm device notag
// Energies are in mWh, the voltage in mV, the rate in mW and negative when discharging. `device` is
// a battery that doesn't feed the machine itself, `notag` a slot without a battery in it. Other
// words are ignored.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

struct BatteryFacts {
  std::string name;
  std::string chemistry;  // as in BATTERY_INFORMATION, at most four characters
  std::uint32_t designedMilliwattHours = 0;
  std::uint32_t fullMilliwattHours = 0;
  std::uint32_t milliwattHours = 0;
  std::uint32_t millivolts = 0;
  std::int32_t milliwatts = 0;
  std::uint32_t cycles = 0;
  bool online = false;  // the machine is on line power
  bool charging = false;
  bool shortTerm = false;    // an uninterruptible power supply
  bool feedsMachine = true;  // a system battery
  bool present = true;
};

// Returns the batteries in the order of their names, or of the lab's lines. Any thread.
std::vector<BatteryFacts> ListBatteries();

// Return Win32_Battery's numbers: BatteryStatus (1 discharging, 2 on line power, 3 fully charged, 6
// charging), Chemistry (CIM_Battery's list; 2 unknown), and minutes, 71582788 if unknown.
std::uint32_t BatteryStatusOf(const BatteryFacts& battery);
std::uint32_t ChemistryNumber(const std::string& chemistry);
std::uint32_t MinutesLeft(const BatteryFacts& battery, std::uint32_t milliwattHours);
std::uint32_t MinutesToFull(const BatteryFacts& battery);

}  // namespace platform
