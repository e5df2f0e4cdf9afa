// Keys: what makes two instances the same object.
#include <algorithm>

#include "cim/instance/instance.h"
#include "cim/instance/instance_body.h"

namespace stewardry::cim {
namespace {

bool IsKey(const PropertyDef* property) { return (property->flags & FLAG_KEY) != 0; }

// Whether `b` has the key `key` of `a`, of the same type and with an equal value.
bool HasEqualKey(const Instance* a, const PropertyDef& key, const Instance* b) {
  const PropertyDef* other = ClassDef_GetProperty(b->def, key.name);
  if (other == nullptr || !IsKey(other) || other->type != key.type) return false;
  return ValueSlot_Equal(Instance_Slot(a, key), Instance_Slot(b, *other), key.type);
}

}  // namespace

std::uint32_t Instance_KeyCount(const Instance* instance) {
  const Instance* body = Instance_LiveBody(instance);
  if (body == nullptr || body->def->propertyCount == 0) return 0;
  const PropertyDef* const* first = body->def->properties;
  return static_cast<std::uint32_t>(std::count_if(first, first + body->def->propertyCount, IsKey));
}

bool Instance_KeysComplete(const Instance* instance) {
  std::uint32_t count = 0;
  if (Instance_PropertyCountOf(instance, &count) != RESULT_OK) return false;
  for (std::uint32_t i = 0; i < count; ++i) {
    std::uint32_t flags = 0;
    if (Instance_PropertyAt(instance, i, nullptr, nullptr, nullptr, &flags) != RESULT_OK)
      return false;
    if ((flags & FLAG_KEY) != 0 && (flags & FLAG_NULL) != 0) return false;
  }
  return true;
}

bool Instance_KeysEqual(const Instance* a, const Instance* b) {
  const Instance* left = Instance_LiveBody(a);
  const Instance* right = Instance_LiveBody(b);
  if (left == nullptr || right == nullptr) return false;
  const std::uint32_t count = Instance_KeyCount(left);
  if (count == 0 || count != Instance_KeyCount(right)) return false;
  const PropertyDef* const* first = left->def->properties;
  return std::all_of(first, first + left->def->propertyCount, [&](const PropertyDef* property) {
    return !IsKey(property) || HasEqualKey(left, *property, right);
  });
}

}  // namespace stewardry::cim
