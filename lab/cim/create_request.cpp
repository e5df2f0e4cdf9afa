// Builds a fan of a described class, with a chassis and a room of classes without a description.
#include "lab/cim/create_request.h"

#include <bit>

namespace cim_ship {

using namespace stewardry;
using namespace stewardry::cim;

namespace {

// Collects results, so that a list of calls needs one test at its end.
class Builder {
 public:
  explicit Builder(Batch* batch) : batch_(batch) {}

  bool Good() const { return good_; }

  // Creates an instance without a described class: each added property describes it.
  Instance* MakeDynamic(const char16_t* className) {
    Instance* made = nullptr;
    Take(Instance_CreateDynamic(&made, className, FLAG_CLASS, batch_));
    return made;
  }
  Instance* Make(const ClassDef& def) {
    Instance* made = nullptr;
    Take(Instance_Create(&made, &def, batch_));
    return made;
  }
  void Add(Instance* instance, const char16_t* name, std::uint32_t type, const CimValue& value,
           std::uint32_t flags = 0) {
    if (good_) Take(Instance_AddProperty(instance, name, &value, type, flags));
  }
  void Store(Instance* instance, const char16_t* name, std::uint32_t type, const CimValue& value) {
    if (good_) Take(Instance_StoreProperty(instance, name, &value, type, 0));
  }
  const char16_t* Text(const char16_t* text) {
    const char16_t* copy = Batch_DupText(batch_, text);
    good_ = good_ && copy != nullptr;
    return copy;
  }

 private:
  void Take(Result result) { good_ = good_ && result == RESULT_OK; }

  Batch* batch_;
  bool good_ = true;
};

constexpr PropertyDef Property(const char16_t* name, std::uint32_t type, std::uint32_t offset,
                               std::uint32_t flags = 0) {
  return {
      .flags = flags, .nameCode = Name_Code(name), .name = name, .type = type, .offset = offset};
}

// As a schema's generator would write them. Each offset is that of the previous slot plus its size.
constexpr PropertyDef kDeviceId = Property(u"DeviceID", CIM_STRING, 64, FLAG_KEY);
constexpr PropertyDef kEnabled = Property(u"Enabled", CIM_BOOLEAN, 80);
constexpr PropertyDef kDesiredSpeed = Property(u"DesiredSpeed", CIM_UINT64, 88);
constexpr PropertyDef kReadings = Property(u"Readings", CIM_SINT16A, 104);
constexpr PropertyDef kAliases = Property(u"Aliases", CIM_STRINGA, 128);
constexpr PropertyDef kInstalled = Property(u"Installed", CIM_DATETIME, 152);
constexpr PropertyDef kNoise = Property(u"Noise", CIM_REAL64, 192);
constexpr PropertyDef kChassis = Property(u"Chassis", CIM_REFERENCE, 208);
constexpr PropertyDef kRoom = Property(u"Room", CIM_INSTANCE, 224);
constexpr PropertyDef kLastFault = Property(u"LastFault", CIM_STRING, 240);
constexpr const PropertyDef* kFanProperties[] = {
    &kDeviceId,  &kEnabled, &kDesiredSpeed, &kReadings, &kAliases,
    &kInstalled, &kNoise,   &kChassis,      &kRoom,     &kLastFault};
constexpr ClassDef kFan = {.flags = FLAG_CLASS,
                           .nameCode = Name_Code(u"Lab_Fan"),
                           .name = u"Lab_Fan",
                           .properties = kFanProperties,
                           .propertyCount = 10,
                           .size = 256};

CimValue Of(const char16_t* text) {
  CimValue value{};
  value.string = text;
  return value;
}

CimValue Of(std::uint64_t number) {
  CimValue value{};
  value.uint64 = number;
  return value;
}

CimValue Of(Instance* instance) {
  CimValue value{};
  value.instance = instance;
  return value;
}

// The call that takes the value copies the elements.
template <class Element, std::uint32_t Size>
CimValue Of(const Element (&elements)[Size]) {
  CimValue value{};
  value.array = {const_cast<Element*>(elements), Size, 0};
  return value;
}

// Only a reference's keys are shipped: the tag is not.
Instance* MakeChassis(Builder* builder) {
  Instance* chassis = builder->MakeDynamic(u"Lab_Chassis");
  builder->Add(chassis, u"Serial", CIM_UINT32, Of(std::uint64_t{4711}), FLAG_KEY);
  builder->Add(chassis, u"Tag", CIM_STRING, Of(u"stays here"));
  return chassis;
}

Instance* MakeRoom(Builder* builder) {
  Instance* room = builder->MakeDynamic(u"Lab_Room");
  builder->Add(room, u"Floor", CIM_SINT8, Of(~std::uint64_t{0}));  // -1
  builder->Add(room, u"Name", CIM_STRING, Of(u"K\u00FChlraum"));
  return room;
}

Instance* MakeFan(Builder* builder, const char16_t* name) {
  static constexpr std::int16_t kDegrees[] = {21, -3, 40};
  static constexpr const char16_t* kNames[] = {u"front", u"intake \u2744"};
  CimValue installed{};
  installed.datetime.timestampForm = 1;
  installed.datetime.timestamp = {2026, 2, 28, 12, 30, 0, 500000, 60};
  Instance* fan = builder->Make(kFan);
  builder->Store(fan, u"DeviceID", CIM_STRING, Of(name));
  builder->Store(fan, u"Enabled", CIM_BOOLEAN, Of(std::uint64_t{1}));
  builder->Store(fan, u"DesiredSpeed", CIM_UINT64, Of(std::uint64_t{1200}));
  builder->Store(fan, u"Readings", CIM_SINT16A, Of(kDegrees));
  builder->Store(fan, u"Aliases", CIM_STRINGA, Of(kNames));
  builder->Store(fan, u"Installed", CIM_DATETIME, installed);
  builder->Store(fan, u"Noise", CIM_REAL64, Of(std::bit_cast<std::uint64_t>(38.5)));
  builder->Store(fan, u"Chassis", CIM_REFERENCE, Of(MakeChassis(builder)));
  builder->Store(fan, u"Room", CIM_INSTANCE, Of(MakeRoom(builder)));
  return fan;
}

}  // namespace

CreateInstanceRequest* MakeCreateRequest(std::uint64_t correlationId, const char16_t* name) {
  Message* message =
      Message_Create(kCreateInstanceTag, sizeof(CreateInstanceRequest), correlationId, 0);
  if (message == nullptr) return nullptr;
  auto* request = reinterpret_cast<CreateInstanceRequest*>(message);
  Builder builder(message->batch);
  request->requestText = builder.Text(u"en-GB");
  request->nameSpace = builder.Text(u"root/lab");
  request->instance = MakeFan(&builder, name);
  if (builder.Good()) return request;
  Message_Drop(message);
  return nullptr;
}

const CreateInstanceRequest* AsCreateRequest(const Message* message) {
  if (message->tag != kCreateInstanceTag) return nullptr;
  return reinterpret_cast<const CreateInstanceRequest*>(message);
}

}  // namespace cim_ship
