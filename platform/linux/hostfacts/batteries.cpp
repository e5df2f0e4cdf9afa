#include "platform/linux/hostfacts/batteries.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <istream>
#include <limits>
#include <sstream>
#include <string_view>
#include <system_error>

#include "platform/linux/lab/lab_folder.h"

namespace platform {

namespace {

constexpr char kPowerSupplies[] = "/sys/class/power_supply";
constexpr std::uint32_t kMinutesUnknown = 71582788;  // Windows' number
constexpr std::int64_t kMinutesPerHour = 60;

std::int64_t ParseInteger(std::string_view text) {
  std::int64_t number = 0;
  (void)std::from_chars(text.data(), text.data() + text.size(), number);  // stays 0 on failure
  return number;
}

// Returns the number as a field holds it, cut off at the ends of its range.
template <class Field>
Field Clamped(std::int64_t number) {
  return static_cast<Field>(std::clamp<std::int64_t>(number, std::numeric_limits<Field>::min(),
                                                     std::numeric_limits<Field>::max()));
}

// One power supply's folder in sysfs. Energies, charges, powers and voltages are in millionths.
class Supply {
 public:
  explicit Supply(std::filesystem::path folder) : folder_(std::move(folder)) {}

  std::string Text(const char* fact) const {
    std::ifstream file(folder_ / fact);
    std::string text;
    std::getline(file, text);
    return text;
  }
  std::int64_t Thousandths(const char* fact) const { return ParseInteger(Text(fact)) / 1000; }
  // Drivers report an energy, or a charge, which is converted at the battery's voltage.
  std::int64_t MilliwattHours(const std::string& which) const {
    if (const std::int64_t energy = Thousandths(("energy_" + which).c_str())) return energy;
    return Thousandths(("charge_" + which).c_str()) * Thousandths("voltage_now") / 1000;
  }
  std::int64_t Milliwatts() const {
    if (const std::int64_t power = Thousandths("power_now")) return power;
    return Thousandths("current_now") * Thousandths("voltage_now") / 1000;
  }

 private:
  std::filesystem::path folder_;
};

BatteryFacts FromSupply(const std::string& name, const Supply& supply) {
  BatteryFacts facts;
  facts.name = name;
  facts.chemistry = supply.Text("technology") == "Li-ion" ? "LION" : supply.Text("technology");
  facts.chemistry.resize(std::min<std::size_t>(facts.chemistry.size(), 4));
  facts.designedMilliwattHours = Clamped<std::uint32_t>(supply.MilliwattHours("full_design"));
  facts.fullMilliwattHours = Clamped<std::uint32_t>(supply.MilliwattHours("full"));
  facts.milliwattHours = Clamped<std::uint32_t>(supply.MilliwattHours("now"));
  facts.millivolts = Clamped<std::uint32_t>(supply.Thousandths("voltage_now"));
  facts.cycles = Clamped<std::uint32_t>(ParseInteger(supply.Text("cycle_count")));
  facts.charging = supply.Text("status") == "Charging";
  const bool discharging = supply.Text("status") == "Discharging";
  const std::int64_t rate = std::abs(supply.Milliwatts());
  facts.milliwatts = Clamped<std::int32_t>(discharging ? -rate : rate);
  facts.feedsMachine = supply.Text("scope") != "Device";
  facts.present = supply.Text("present") != "0";
  return facts;
}

std::vector<BatteryFacts> RealBatteries() {
  std::vector<BatteryFacts> batteries;
  bool online = false;
  std::error_code error;
  for (std::filesystem::directory_iterator at(kPowerSupplies, error), end; !error && at != end;
       at.increment(error)) {
    const Supply supply(at->path());
    const std::string type = supply.Text("type");
    online = online || (type != "Battery" && supply.Text("online") == "1");
    if (type == "Battery") batteries.push_back(FromSupply(at->path().filename(), supply));
  }
  for (BatteryFacts& battery : batteries) battery.online = online;
  std::sort(batteries.begin(), batteries.end(),
            [](const auto& a, const auto& b) { return a.name < b.name; });
  return batteries;
}

using WordReader = void (*)(const std::string& value, BatteryFacts* facts);

template <std::uint32_t BatteryFacts::*field>
void ReadField(const std::string& value, BatteryFacts* facts) {
  facts->*field = Clamped<std::uint32_t>(ParseInteger(value));
}

using B = BatteryFacts;
struct WordRow {
  std::string_view word;
  WordReader read;
};
constexpr WordRow kWords[] = {
    {"chemistry", [](const std::string& v, B* b) { b->chemistry = v.substr(0, 4); }},
    {"designed", ReadField<&B::designedMilliwattHours>},
    {"full", ReadField<&B::fullMilliwattHours>},
    {"capacity", ReadField<&B::milliwattHours>},
    {"voltage", ReadField<&B::millivolts>},
    {"rate",
     [](const std::string& v, B* b) { b->milliwatts = Clamped<std::int32_t>(ParseInteger(v)); }},
    {"cycles", ReadField<&B::cycles>},
    {"online", [](const std::string&, B* b) { b->online = true; }},
    {"charging", [](const std::string&, B* b) { b->charging = true; }},
    {"shortterm", [](const std::string&, B* b) { b->shortTerm = true; }},
    {"device", [](const std::string&, B* b) { b->feedsMachine = false; }},
    {"notag", [](const std::string&, B* b) { b->present = false; }},
};

std::vector<BatteryFacts> LabBatteries(std::istream& file) {
  std::vector<BatteryFacts> batteries;
  for (std::string line; std::getline(file, line);) {
    BatteryFacts facts;
    std::istringstream words(line);
    if (!(words >> facts.name)) continue;
    for (std::string word; words >> word;) {
      const std::size_t equals = std::min(word.find('='), word.size());
      for (const WordRow& row : kWords)
        if (row.word == word.substr(0, equals))
          row.read(word.substr(std::min(equals + 1, word.size())), &facts);
    }
    batteries.push_back(std::move(facts));
  }
  return batteries;
}

std::uint32_t Minutes(std::int64_t milliwattHours, std::int64_t milliwatts) {
  if (milliwatts <= 0) return kMinutesUnknown;
  return Clamped<std::uint32_t>(milliwattHours * kMinutesPerHour / milliwatts);
}

}  // namespace

std::vector<BatteryFacts> ListBatteries() {
  if (std::ifstream lab(LabPath("batteries.txt")); lab) return LabBatteries(lab);
  return RealBatteries();
}

std::uint32_t BatteryStatusOf(const BatteryFacts& battery) {
  constexpr std::uint32_t kDischarging = 1, kOnLine = 2, kFull = 3, kCharging = 6;
  if (battery.charging) return kCharging;
  if (!battery.online) return kDischarging;
  return battery.milliwattHours >= battery.fullMilliwattHours ? kFull : kOnLine;
}

std::uint32_t ChemistryNumber(const std::string& chemistry) {
  struct Row {
    std::string_view chemistry;
    std::uint32_t number;
  };
  constexpr Row kNumbers[] = {{"PbAc", 3}, {"NiCd", 4}, {"NiMH", 5}, {"LION", 6}, {"Li-P", 8}};
  constexpr std::uint32_t kUnknown = 2;
  for (const Row& row : kNumbers)
    if (row.chemistry == chemistry) return row.number;
  return kUnknown;
}

std::uint32_t MinutesLeft(const BatteryFacts& battery, std::uint32_t milliwattHours) {
  return Minutes(milliwattHours, -std::int64_t{battery.milliwatts});
}

std::uint32_t MinutesToFull(const BatteryFacts& battery) {
  if (!battery.charging) return kMinutesUnknown;
  return Minutes(std::int64_t{battery.fullMilliwattHours} - battery.milliwattHours,
                 battery.milliwatts);
}

}  // namespace platform
