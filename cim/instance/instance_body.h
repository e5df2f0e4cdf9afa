// What the parts of the instance share: its blocks of memory, its slots, and the change of a
// definition that is the instance's own.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cim/instance/instance.h"
#include "cim/memory/batch.h"

namespace stewardry::cim {

// The bytes that a dynamic body with room for `slots` properties takes.
constexpr std::uint64_t DynamicBodySize(std::uint64_t slots) {
  return sizeof(Instance) + slots * DYNAMIC_SLOT_SIZE;
}

// A zeroed body of `size` bytes, at least a head, behind a header with one reference; empty when
// memory fails. `body` points to itself.
Instance* Instance_AllocBody(Batch* batch, std::uint64_t size);

// A wrapper of the body, with one reference; empty when memory fails.
Instance* Instance_Wrap(Instance* body, Batch* batch);

// Copies the body's head into its wrapper and points it to the body.
void Instance_SyncWrapper(Instance* wrapper, const Instance* body);

// The header in front of a body or wrapper that the library allocated.
inline InstanceHeader* Instance_Header(Instance* instance) {
  return reinterpret_cast<InstanceHeader*>(instance) - 1;
}

// The body of a handle that has a definition, else empty: for a dismantled instance too.
inline Instance* Instance_LiveBody(Instance* instance) {
  Instance* body = Instance_Body(instance);
  return body == nullptr || body->def == nullptr ? nullptr : body;
}
inline const Instance* Instance_LiveBody(const Instance* instance) {
  return Instance_LiveBody(const_cast<Instance*>(instance));  // read only by the caller
}

inline ValueSlot* Instance_Slot(Instance* body, const PropertyDef& property) {
  return reinterpret_cast<ValueSlot*>(reinterpret_cast<std::uint8_t*>(body) + property.offset);
}
inline const ValueSlot* Instance_Slot(const Instance* body, const PropertyDef& property) {
  return Instance_Slot(const_cast<Instance*>(body), property);  // comes out const again
}

// The definition of an instance that owns it, to be changed; empty for a shared one. Everything
// that hangs from it was made by this library in the instance's batch, so the casts are right.
inline ClassDef* Instance_PrivateDef(const Instance* body) {
  const bool isPrivate = body->def->owner == kOwnerDynamic;
  return isPrivate ? const_cast<ClassDef*>(body->def) : nullptr;
}

// The entries of the table that begin and end an instance.
namespace instance_ops {
Result Clone(const Instance* self, Instance** clone);
Result Dismantle(Instance* self);
Result Delete(Instance* self);
}  // namespace instance_ops

}  // namespace stewardry::cim
