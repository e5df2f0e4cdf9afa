#include "lab/firmware/model/indications.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <ctime>

#include "lab/firmware/core/text.h"

namespace orrin {

using namespace stewardry::cim;

namespace {

struct AlertRow {
  const char* messageId;
  const char* severity;  // 2 information, 3 warning
  const char* words;
};

// In the order of Alert.
constexpr std::array kAlerts = {
    AlertRow{"ORRIN1", "3", "The host has gone: its service has closed the mailbox."},
    AlertRow{"ORRIN2", "2", "The host's service is ready."},
    AlertRow{"ORRIN3", "2", "The host is going to S5."},
    AlertRow{"ORRIN4", "2", "The host was given a power command."},
    AlertRow{"ORRIN5", "3", "The battery is low."},
};
static_assert(kAlerts.size() == static_cast<std::size_t>(Alert::kBatteryLow) + 1);

bool SameReference(const Property& a, const Property& b) {
  return a.IsNull() == b.IsNull() &&
         (a.IsNull() || Instance_KeysEqual(a.value.reference, b.value.reference));
}

// Both are of one class, so their properties stand in one order.
bool HasSameValues(const Instance* a, const Instance* b) {
  const std::vector<Property> left = PropertiesOf(a), right = PropertiesOf(b);
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [](const Property& p, const Property& q) {
                      if (CimType_HoldsInstances(p.type)) return SameReference(p, q);
                      return p.IsNull() == q.IsNull() && TextsOf(p) == TextsOf(q);
                    });
}

Object MakeIndication(const char* className) {
  static std::uint64_t number = 0;
  const ClassDef* const def = FindClass(className);
  assert(def != nullptr);
  Object made = MakeObject(*def);
  if (made == nullptr) return nullptr;
  const bool isSet =
      SetText(made.get(), u"IndicationIdentifier", Format("orrin:%llu", ++number + 0ULL)) &&
      SetText(made.get(), u"IndicationTime", FixedTimeNow());
  return isSet ? std::move(made) : nullptr;
}

void AddChange(const char* className, const Instance* source, std::vector<Object>* changes) {
  Object made = MakeIndication(className);
  if (made != nullptr && SetInstance(made.get(), u"SourceInstance", source))
    changes->push_back(std::move(made));
}

}  // namespace

std::string FixedTimeNow() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  (void)gmtime_r(&now, &utc);
  char text[32];
  (void)std::strftime(text, sizeof text, "%Y%m%d%H%M%S.000000+000", &utc);
  return text;
}

std::vector<Object> ChangesBetween(const Repository& before, const Repository& after) {
  std::vector<Object> changes;
  for (const Object& object : after.All()) {
    const Instance* const old = before.Find(object.get());
    if (old == nullptr) {
      AddChange("CIM_InstCreation", object.get(), &changes);
    } else if (!HasSameValues(old, object.get())) {
      AddChange("CIM_InstModification", object.get(), &changes);
    }
  }
  for (const Object& object : before.All())
    if (after.Find(object.get()) == nullptr) AddChange("CIM_InstDeletion", object.get(), &changes);
  return changes;
}

Object MakeAlert(Alert alert, const std::string& systemName) {
  const AlertRow& row = kAlerts[static_cast<std::size_t>(alert)];
  Object made = MakeIndication("CIM_AlertIndication");
  const bool isSet = made != nullptr && SetText(made.get(), u"MessageID", row.messageId) &&
                     SetText(made.get(), u"Message", row.words) &&
                     SetText(made.get(), u"PerceivedSeverity", row.severity) &&
                     SetText(made.get(), u"OwningEntity", "Corvane") &&
                     SetText(made.get(), u"SystemName", systemName);
  return isSet ? std::move(made) : nullptr;
}

}  // namespace orrin
