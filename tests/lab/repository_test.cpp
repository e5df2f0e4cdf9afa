// The firmware's objects, from the host's report to the packed file and back.
#include "lab/firmware/model/repository.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "lab/firmware/model/host_model.h"

namespace orrin {
namespace {

Inventory Reported() {
  Inventory inventory;
  OsRecord os{};
  constexpr char kName[] = "lab-host";
  std::copy(std::begin(kName), std::end(kName), os.hostName);
  inventory.os = os;
  inventory.network = NetworkRecord{};
  inventory.ip = IpRecord{};
  return inventory;
}

const FirmwareView kFirmware{"2.4.1.0", true, false, 80};

cim::Instance* Only(const Repository& repository, std::string_view name) {
  const auto found = repository.OfClass(*FindClass(name));
  return found.size() == 1 ? found.front() : nullptr;
}

std::string TextIn(const Repository& repository, std::string_view name, const char16_t* property) {
  const cim::Instance* const only = Only(repository, name);
  const auto found = only == nullptr ? std::nullopt : PropertyOf(only, property);
  return found && !found->IsNull() ? TextsOf(*found).front() : "";
}

TEST(Repository, ShowsTheHostAsItIsNowAndKeepsWhatWasWritten) {
  Repository repository;
  ShowHost(Reported(), kFirmware, &repository);
  ASSERT_TRUE(SetText(Only(repository, "CIM_ComputerSystem"), u"PrimaryOwnerName", "Ann"));
  FirmwareView later = kFirmware;
  later.isKvmEnabled = true;
  later.batteryPercent = 9;
  const std::size_t count = repository.Count();
  ShowHost(Reported(), later, &repository);
  EXPECT_EQ(repository.Count(), count);
  EXPECT_EQ(TextIn(repository, "CIM_ComputerSystem", u"PrimaryOwnerName"), "Ann");
  EXPECT_EQ(TextIn(repository, "CIM_KVMRedirectionSAP", u"EnabledState"), "2");
  EXPECT_EQ(TextIn(repository, "CIM_Battery", u"BatteryStatus"), "3");
  EXPECT_EQ(TextIn(repository, "CIM_EthernetPort", u"LinkTechnology"), "2");  // a class' default

  Repository restored;
  EXPECT_EQ(restored.Restore(repository.Packed()), 0U);
  EXPECT_EQ(restored.Count(), count);
  ShowHost({}, later, &restored);  // the host has not reported yet
  EXPECT_EQ(TextIn(restored, "CIM_ComputerSystem", u"Name"), "lab-host");
  EXPECT_EQ(TextIn(restored, "CIM_ComputerSystem", u"PrimaryOwnerName"), "Ann");
}

TEST(Repository, LeavesOutWhatIsDamaged) {
  Repository repository;
  ShowHost(Reported(), kFirmware, &repository);
  const std::string bytes = repository.Packed();
  ASSERT_GT(bytes.size(), 4'000U);
  for (std::size_t i = 0; i < bytes.size(); i += 7) {
    std::string damaged = bytes;
    damaged[i] = static_cast<char>(damaged[i] ^ 0x55);
    Repository flipped, cut;
    (void)flipped.Restore(damaged);  // any result: the bytes may still be valid
    (void)cut.Restore(std::string_view(bytes).substr(0, i));
    EXPECT_LE(flipped.Count(), repository.Count());
    EXPECT_LE(cut.Count(), repository.Count());
  }
}

TEST(Texts, ThatDoNotFitTheirTypeAreRefused) {
  const Object made = MakeObject(*FindClass("CIM_Chassis"));
  EXPECT_TRUE(SetText(made.get(), u"HealthState", "65535"));
  for (const char* bad : {"", "65536", "-1", "1x", "0x10", "five"})
    EXPECT_FALSE(SetText(made.get(), u"HealthState", bad)) << bad;
  EXPECT_EQ(TextsOf(*PropertyOf(made.get(), u"HealthState")), std::vector<std::string>{"65535"});
  EXPECT_TRUE(SetTexts(made.get(), u"UUID", {"AAEC/w=="}));
  EXPECT_EQ(OctetText(PropertyOf(made.get(), u"UUID")->value.array), "AAEC/w==");
  EXPECT_FALSE(SetTexts(made.get(), u"UUID", {"no Base64"}));
  EXPECT_TRUE(SetText(made.get(), u"InstallDate", "2026-11-24T12:00:00Z"));
  EXPECT_FALSE(SetText(made.get(), u"InstallDate", "yesterday"));
  EXPECT_TRUE(SetText(made.get(), u"Tag", "Zo\xC3\xAB \xF0\x9F\x98\x80"));
  EXPECT_EQ(TextsOf(*PropertyOf(made.get(), u"Tag")).front(), "Zo\xC3\xAB \xF0\x9F\x98\x80");
}

}  // namespace
}  // namespace orrin
