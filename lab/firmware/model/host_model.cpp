#include "lab/firmware/model/host_model.h"

#include <algorithm>
#include <cassert>

#include "lab/firmware/core/text.h"

namespace orrin {

namespace {

constexpr char kComputer[] = "CIM_ComputerSystem";
constexpr char kUnnamedHost[] = "host";  // until it has reported its name

// Values of DMTF's schema.
constexpr char kEnabled[] = "2", kDisabled[] = "3", kEnabledButOffline[] = "6";
constexpr char kOk[] = "2", kHealthOk[] = "5";

// Builds one instance. Names are those of dash.mof, so only a wrong program or a lack of memory
// makes a step fail; the instance is then left out.
class Builder {
 public:
  explicit Builder(const char* className) {
    const cim::ClassDef* const def = FindClass(className);
    assert(def != nullptr);
    object_ = MakeObject(*def);
  }
  Builder& Set(const char16_t* name, const std::string& text) {
    if (object_ != nullptr && !SetText(object_.get(), name, text)) Fail();
    return *this;
  }
  Builder& SetAll(const char16_t* name, const std::vector<std::string>& texts) {
    if (object_ != nullptr && !SetTexts(object_.get(), name, texts)) Fail();
    return *this;
  }
  Builder& Refer(const char16_t* name, const cim::Instance* value) {
    if (object_ != nullptr && (value == nullptr || !SetInstance(object_.get(), name, value)))
      Fail();
    return *this;
  }
  // The keys of what belongs to the computer.
  Builder& OfSystem(const char* className, const std::string& system) {
    return Set(u"SystemCreationClassName", kComputer)
        .Set(u"SystemName", system)
        .Set(u"CreationClassName", className);
  }
  Builder& State(const char* state) {
    return Set(u"EnabledState", state)
        .SetAll(u"OperationalStatus", {kOk})
        .Set(u"HealthState", kHealthOk);
  }
  Object Take() { return std::move(object_); }

 private:
  void Fail() { object_.reset(); }

  Object object_;
};

std::string WithoutMarks(std::string text) {
  std::erase_if(text, [](char c) { return c == ':' || c == '-'; });
  return text;
}

std::string SystemName(const Inventory& inventory, const Repository& repository) {
  if (inventory.os) {
    std::string name = AsciiField(inventory.os->hostName);
    if (!name.empty()) return name;
  }
  const auto known = repository.OfClass(*FindClass(kComputer));
  const auto name = known.empty() ? std::nullopt : PropertyOf(known.front(), u"Name");
  return name && !name->IsNull() ? Utf8(name->value.string) : kUnnamedHost;
}

Object Computer(const Inventory& inventory, const FirmwareView& firmware,
                const std::string& system) {
  Builder builder(kComputer);
  builder.Set(u"CreationClassName", kComputer)
      .Set(u"Name", system)
      .Set(u"NameFormat", "HID")
      .Set(u"ElementName", system)
      .Set(u"Caption", "Managed computer")
      .SetAll(u"Dedicated", {"0"})
      .State(firmware.hasHost ? kEnabled : kEnabledButOffline);
  if (inventory.network)
    builder.SetAll(u"OtherIdentifyingInfo",
                   {WithoutMarks(Utf8Field(inventory.network->macAddress))});
  return builder.Take();
}

Object OperatingSystem(const OsRecord& os, const std::string& system) {
  return Builder("CIM_OperatingSystem")
      .Set(u"CSCreationClassName", kComputer)
      .Set(u"CSName", system)
      .Set(u"CreationClassName", "CIM_OperatingSystem")
      .Set(u"Name", Utf8Field(os.caption))
      .Set(u"ElementName", Utf8Field(os.caption))
      .Set(u"Caption", Utf8Field(os.caption) + ", " + Utf8Field(os.architecture))
      .Set(u"Version", Utf8Field(os.version))
      .Set(u"OSType", std::to_string(os.osType))
      .State(kEnabled)
      .Take();
}

bool IsConnected(const NetworkRecord& network) {
  return network.endMarker == kEndMarker;  // otherwise the host has no network
}

Object Port(const NetworkRecord& network, const std::string& system) {
  const std::string address = WithoutMarks(Utf8Field(network.macAddress));
  return Builder("CIM_EthernetPort")
      .OfSystem("CIM_EthernetPort", system)
      .Set(u"DeviceID", Utf8Field(network.deviceId))
      .Set(u"Name", Utf8Field(network.name))
      .Set(u"ElementName", Utf8Field(network.name))
      .Set(u"Speed", std::to_string(network.speed))
      .Set(u"PermanentAddress", address)
      .SetAll(u"NetworkAddresses", {address})
      .State(IsConnected(network) ? kEnabled : kDisabled)
      .Take();
}

Object Endpoint(const IpRecord& ip, const Inventory& inventory, const std::string& system) {
  Builder builder("CIM_IPProtocolEndpoint");
  builder.OfSystem("CIM_IPProtocolEndpoint", system)
      .Set(u"Name", "ip0")
      .Set(u"ElementName", "IPv4 address")
      .Set(u"IPv4Address", DottedAddress(ip.ipAddress))
      .Set(u"SubnetMask", DottedAddress(ip.subnetMask))
      .State(kEnabled);
  if (inventory.network && inventory.network->addressOrigin <= UINT16_MAX)
    builder.Set(u"AddressOrigin", std::to_string(inventory.network->addressOrigin));
  return builder.Take();
}

// The firmware's own services do not depend on a report.
void ShowServices(const FirmwareView& firmware, const std::string& system,
                  const cim::Instance* computer, Repository* repository) {
  Object power = Builder("CIM_PowerManagementService")
                     .OfSystem("CIM_PowerManagementService", system)
                     .Set(u"Name", "power")
                     .Set(u"ElementName", "Power management")
                     .State(kEnabled)
                     .Take();
  repository->Put(
      Builder("CIM_AssociatedPowerManagementService")
          .Refer(u"ServiceProvided", power.get())
          .Refer(u"UserOfService", computer)
          .Set(u"PowerState", firmware.hasHost ? "2" : "8")
          .SetAll(u"AvailableRequestedPowerStates", {"4", "5", "7", "8", "10", "12", "14", "15"})
          .Take());
  repository->Put(std::move(power));
  repository->Put(Builder("CIM_KVMRedirectionSAP")
                      .OfSystem("CIM_KVMRedirectionSAP", system)
                      .Set(u"Name", "kvm")
                      .Set(u"ElementName", "Screen, keyboard and mouse on port 22")
                      .State(firmware.isKvmEnabled ? kEnabled : kDisabled)
                      .Take());
}

struct ProfileRow {
  const char* id;
  const char* name;
  const char* version;
};
constexpr ProfileRow kProfiles[] = {
    {"orrin:DSP1058", "Base Desktop and Mobile", "1.0.1"},
    {"orrin:DSP1027", "Power State Management", "2.0.0"},
    {"orrin:DSP1029", "OS Status", "1.1.0"},
    {"orrin:DSP1035", "Host LAN Network Port", "1.0.2"},
    {"orrin:DSP1054", "Indications", "1.2.2"},
    {"orrin:DSP1076", "KVM Redirection", "1.0.0"},
};

void ShowFilters(Repository* repository) {
  for (const FilterRow& row : kFilters)
    repository->Put(Builder("CIM_FilterCollection")
                        .Set(u"InstanceID", row.id)
                        .Set(u"CollectionName", row.id)
                        .Set(u"ElementName", row.name)
                        .Take());
}

void ShowProfiles(Repository* repository) {
  for (const ProfileRow& row : kProfiles)
    repository->Put(Builder("CIM_RegisteredProfile")
                        .Set(u"InstanceID", row.id)
                        .Set(u"RegisteredName", row.name)
                        .Set(u"RegisteredVersion", row.version)
                        .SetAll(u"AdvertiseTypes", {"3"})  // 3: by SLP or the like; here: Identify
                        .Take());
}

Object Software(const char* id, const char* name, const std::string& version) {
  return Builder("CIM_SoftwareIdentity")
      .Set(u"InstanceID", id)
      .Set(u"ElementName", name)
      .Set(u"Name", name)
      .Set(u"VersionString", version)
      .Set(u"Manufacturer", "Corvane")
      .Take();
}

Object Chassis(const std::string& system) {
  return Builder("CIM_Chassis")
      .Set(u"CreationClassName", "CIM_Chassis")
      .Set(u"Tag", system)
      .Set(u"ElementName", system)
      .Set(u"Manufacturer", "Corvane")
      .Set(u"ChassisPackageType", "2")  // unknown
      .SetAll(u"OperationalStatus", {kOk})
      .Take();
}

Object Battery(std::uint16_t percent, const std::string& system) {
  constexpr std::uint16_t kFull = 100;
  const char* const status = percent >= kFull ? "2" : percent <= kLowBattery ? "3" : "1";
  return Builder("CIM_Battery")
      .OfSystem("CIM_Battery", system)
      .Set(u"DeviceID", "battery0")
      .Set(u"ElementName", "Battery")
      .Set(u"BatteryStatus", status)
      .Set(u"EstimatedChargeRemaining", std::to_string(percent))
      .State(kEnabled)
      .Take();
}

// What belongs to a computer of another name has other keys.
void ForgetOtherHost(const std::string& system, Repository* repository) {
  const auto computers = repository->OfClass(*FindClass(kComputer));
  const bool isOther = std::any_of(computers.begin(), computers.end(), [&](const auto* computer) {
    const auto name = PropertyOf(computer, u"Name");
    return !name || name->IsNull() || Utf8(name->value.string) != system;
  });
  if (isOther) *repository = Repository();
}

}  // namespace

void ShowHost(const Inventory& inventory, const FirmwareView& firmware, Repository* repository) {
  const std::string system = SystemName(inventory, *repository);
  ForgetOtherHost(system, repository);
  const Object key =
      Builder(kComputer).Set(u"CreationClassName", kComputer).Set(u"Name", system).Take();
  repository->Put(Computer(inventory, firmware, system));
  repository->Put(Chassis(system));
  ShowServices(firmware, system, key.get(), repository);
  ShowProfiles(repository);
  ShowFilters(repository);
  repository->Put(Software("orrin:firmware", "Management firmware", firmware.version));
  if (inventory.os) {
    repository->RemoveClass(u"CIM_OperatingSystem");  // its name may have changed
    repository->Put(OperatingSystem(*inventory.os, system));
    repository->Put(
        Software("orrin:service", "Stewardry", AsciiField(inventory.os->serviceVersion)));
  }
  if (inventory.network) {
    repository->RemoveClass(u"CIM_EthernetPort");
    repository->Put(Port(*inventory.network, system));
  }
  if (inventory.ip) repository->Put(Endpoint(*inventory.ip, inventory, system));
  if (!firmware.batteryPercent) return repository->RemoveClass(u"CIM_Battery");
  repository->Put(Battery(*firmware.batteryPercent, system));
}

void ShowSubscription(const std::optional<SubscriptionView>& subscription, Repository* repository) {
  repository->RemoveClass(u"CIM_FilterCollectionSubscription");
  repository->RemoveClass(u"CIM_ListenerDestinationWSManagement");
  if (!subscription) return;
  constexpr char kListener[] = "CIM_ListenerDestinationWSManagement";
  Object listener = Builder(kListener)
                        .OfSystem(kListener, SystemName({}, *repository))
                        .Set(u"Name", subscription->id)
                        .Set(u"Destination", subscription->destination)
                        .Take();
  const Object filter =
      Builder("CIM_FilterCollection").Set(u"InstanceID", subscription->filter).Take();
  repository->Put(Builder("CIM_FilterCollectionSubscription")
                      .Refer(u"Filter", filter.get())
                      .Refer(u"Handler", listener.get())
                      .Set(u"SubscriptionStartTime", subscription->start)
                      .Set(u"SubscriptionDuration", std::to_string(subscription->seconds))
                      .Take());
  repository->Put(std::move(listener));
}

}  // namespace orrin
