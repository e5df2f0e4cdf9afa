// Instance internals for the sources of instance/ and packing/: blocks of memory, slots, and the
// definition that an instance owns. Programs use instance.h.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>

#include "cim/instance/instance.h"
#include "cim/memory/batch.h"

namespace stewardry::cim {

// Returns the bytes of a dynamic body with room for `slots` properties.
constexpr std::uint64_t DynamicBodySize(std::uint64_t slots) {
  return sizeof(Instance) + slots * DYNAMIC_SLOT_SIZE;
}

// Returns the one flag of a dynamic definition that names its kind.
std::uint32_t DynamicDef_Kind(std::uint32_t flags);

// Allocates a zeroed body of `size` bytes, at least a head, behind a header with one reference.
// `body` points to itself. Returns null if allocation fails.
Instance* Instance_AllocBody(Batch* batch, std::uint64_t size);

// Allocates a wrapper of the body with one reference. Returns null if allocation fails.
Instance* Instance_Wrap(Instance* body, Batch* batch);

// Copies the body's head into its wrapper and points the wrapper to the body.
void Instance_SyncWrapper(Instance* wrapper, const Instance* body);

// Returns the header in front of a body or wrapper that the library allocated.
inline InstanceHeader* Instance_Header(Instance* instance) {
  return reinterpret_cast<InstanceHeader*>(instance) - 1;
}

// Returns the body of a handle, or null for a null handle and for a dismantled instance, which has
// no definition.
inline Instance* Instance_LiveBody(Instance* instance) {
  Instance* body = Instance_Body(instance);
  return body == nullptr || body->def == nullptr ? nullptr : body;
}
inline const Instance* Instance_LiveBody(const Instance* instance) {
  return Instance_LiveBody(const_cast<Instance*>(instance));  // the result is const
}

// Returns the property's slot. Requires a body, not a wrapper, and a property of its definition.
inline ValueSlot* Instance_Slot(Instance* body, const PropertyDef& property) {
  assert(body->body == nullptr || body->body == body);
  assert(property.offset >= sizeof(Instance));
  return reinterpret_cast<ValueSlot*>(reinterpret_cast<std::uint8_t*>(body) + property.offset);
}
inline const ValueSlot* Instance_Slot(const Instance* body, const PropertyDef& property) {
  return Instance_Slot(const_cast<Instance*>(body), property);  // the result is const
}

// Returns the definition that the instance owns, to be changed, or null for a shared one. The
// library made all of it in the instance's batch, which makes the cast valid.
inline ClassDef* Instance_PrivateDef(const Instance* body) {
  const bool isPrivate = body->def->owner == kOwnerDynamic;
  return isPrivate ? const_cast<ClassDef*>(body->def) : nullptr;
}

// The table's entries that instance.cpp defines.
namespace instance_ops {
Result Clone(const Instance* self, Instance** clone);
Result Dismantle(Instance* self);
Result Delete(Instance* self);
}  // namespace instance_ops

}  // namespace stewardry::cim
