#include "cim/instance/instance.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <new>

#include "cim/instance/definition_copy.h"
#include "cim/instance/instance_body.h"
#include "cim/instance/operations.h"
#include "cim/memory/arithmetic.h"
#include "cim/memory/heap.h"
#include "cim/value/names.h"

namespace stewardry::cim {
namespace {

// The bytes of the head that a wrapper begins with. The rest is filler.
constexpr std::size_t kHeadInUse = 56;
static_assert(offsetof(Instance, ownsDef) < kHeadInUse);
// The first body of a dynamic instance fits a block of the size that the heap keeps for reuse.
static_assert(sizeof(BatchPage) + sizeof(InstanceHeader) + DynamicBodySize(INSTANCE_MIN_CAPACITY) <=
              kBodyBlockSize);

// The batch of one call: the caller's, or one made for the call and destroyed with it unless an
// instance takes it over.
class CallBatch {
 public:
  explicit CallBatch(Batch* callersBatch)
      : batch_(callersBatch != nullptr ? callersBatch : Batch_Create(kNoPageLimit)),
        isMade_(callersBatch == nullptr) {}
  CallBatch(const CallBatch&) = delete;
  CallBatch& operator=(const CallBatch&) = delete;
  ~CallBatch() {
    if (isMade_ && batch_ != nullptr) Batch_Destroy(batch_);
  }

  Batch* Get() const { return batch_; }
  // Transfers the batch to the instance, which owns it if it was made here.
  void TransferTo(Instance* handle) {
    assert(batch_ != nullptr && handle->body->batch == batch_);
    handle->ownsBatch = handle->body->ownsBatch = isMade_ ? 1 : 0;
    batch_ = nullptr;
  }

 private:
  Batch* batch_;
  const bool isMade_;
};

Result OkIf(const void* made) { return made != nullptr ? RESULT_OK : RESULT_FAILED; }

Result ShareClassObject(Instance* body, const ClassDef& def) {
  assert(def.owner != kOwnerNone && def.owner != kOwnerDynamic);
  ClassObject* clone = nullptr;
  const Result result = Class_Clone(reinterpret_cast<ClassObject*>(def.owner), &clone);
  if (result == RESULT_OK) body->def = clone->def;
  return result;
}

Result CopyClass(Instance* body, const ClassDef* def, Batch* batch) {
  body->def = ClassDef_Clone(batch, def);
  body->ownsDef = 1;
  return OkIf(body->def);
}

Result CopyDynamic(Instance* body, const ClassDef* def, Batch* batch) {
  body->def = DynamicDef_Copy(def, batch);
  return OkIf(body->def);
}

// Shares or copies a definition, which may be a method's, for a new instance.
Result AcquireDefinition(Instance* body, const ClassDef* def, Batch* batch) {
  if ((ClassDef_CommonPart(def).flags & kClassKinds) == 0) return CopyDynamic(body, def, batch);
  if (def->owner == kOwnerDynamic) return CopyClass(body, def, batch);
  if (def->owner != kOwnerNone) return ShareClassObject(body, *def);
  body->def = def;
  return RESULT_OK;
}

// Shares or copies the source's definition for a copy.
Result AcquireDefinitionOf(Instance* body, const Instance& source, Batch* batch) {
  if (source.def->owner == kOwnerDynamic) return CopyDynamic(body, source.def, batch);
  if (source.ownsDef != 0) return CopyClass(body, source.def, batch);
  return AcquireDefinition(body, source.def, batch);
}

// Releases the definition of an instance that has no wrapper.
void ReleaseDefinition(const Instance& body) {
  const ClassDef* def = body.def;
  if (body.ownsDef != 0) return ClassDef_Release(def);
  if ((def->flags & kClassKinds) == 0) return;
  if (def->owner == kOwnerNone || def->owner == kOwnerDynamic) return;
  (void)Class_Delete(reinterpret_cast<ClassObject*>(def->owner));  // always succeeds
}

// Releases the blocks of a dynamic instance that the batch can free early.
void ReleaseDynamic(Instance* body, Batch* batch) {
  const ClassDef* def = body->def;
  assert(def->owner == kOwnerDynamic);
  for (std::uint32_t i = 0; i < def->propertyCount; ++i) {
    Batch_Release(batch, def->properties[i]->name);
    Batch_Release(batch, def->properties[i]);
  }
  Batch_Release(batch, def->name);
  Batch_Release(batch, def->properties);
  Batch_Release(batch, def);
  Batch_Release(batch, Instance_Header(body));
}

void DestroySlots(Instance* body) {
  for (std::uint32_t i = 0; i < body->def->propertyCount; ++i) {
    const PropertyDef& property = *body->def->properties[i];
    ValueSlot_Destroy(Instance_Slot(body, property), property.type, body->batch);
  }
}

// Returns true if every slot is aligned and lies within the definition's size.
[[maybe_unused]] bool SlotsFit(const ClassDef& def) {
  for (std::uint32_t i = 0; i < def.propertyCount; ++i) {
    const ParameterDef property = PropertyDef_CommonPart(def.properties, i);
    if (property.type >= kCimTypes) continue;  // such a property has no slot
    if (property.offset < sizeof(Instance)) return false;
    if (property.offset % CimType_Alignment(property.type) != 0) return false;
    if (std::uint64_t{property.offset} + kSlotSizes[property.type] > def.size) return false;
  }
  return true;
}

// Copies texts, definition and values into a body whose head is set up.
Result CopyContent(Instance* body, const Instance& source) {
  Batch* batch = body->batch;
  if (!CopyOptionalText(batch, source.namespaceName, &body->namespaceName)) return RESULT_FAILED;
  if (!CopyOptionalText(batch, source.hostName, &body->hostName)) return RESULT_FAILED;
  const Result result = AcquireDefinitionOf(body, source, batch);
  if (result != RESULT_OK) return result;
  for (std::uint32_t i = 0; i < body->def->propertyCount; ++i) {
    const PropertyDef& property = *body->def->properties[i];
    const ValueSlot* from = Instance_Slot(&source, property);
    ValueSlot* slot = Instance_Slot(body, property);
    if (ValueSlot_Copy(slot, property.type, from, batch) != RESULT_OK) return RESULT_FAILED;
  }
  return RESULT_OK;
}

// Returns the bytes of a copy's body, with room for a dynamic instance to grow.
std::uint64_t CopySize(const ClassDef& def) {
  std::uint64_t slots = INSTANCE_MIN_CAPACITY;
  if (def.owner == kOwnerDynamic) slots = DynamicDef_Capacity(def.propertyCount);
  return std::max<std::uint64_t>(DynamicBodySize(slots), def.size);
}

ClassDef* MakeDynamicDef(Batch* batch, const char16_t* className, std::uint32_t flags) {
  auto* def = static_cast<ClassDef*>(Batch_AllocZero(batch, sizeof(ClassDef)));
  const char16_t* name = Batch_DupText(batch, className);
  void* properties = Batch_AllocZero(batch, INSTANCE_MIN_CAPACITY * sizeof(void*));
  if (def == nullptr || name == nullptr || properties == nullptr) return nullptr;
  def->owner = kOwnerDynamic;
  def->flags = DynamicDef_Kind(flags);
  def->name = name;
  def->nameCode = Name_Code(name);
  def->properties = static_cast<const PropertyDef**>(properties);
  def->size = sizeof(Instance);
  return def;
}

}  // namespace

std::uint32_t DynamicDef_Kind(std::uint32_t flags) {
  for (const std::uint32_t kind : {FLAG_KIND_10, FLAG_KIND_20, FLAG_METHOD}) {
    if ((flags & kind) != 0) return kind;
  }
  return FLAG_CLASS;
}

bool Instance_IsWrapped(const Instance* instance) { return Instance_Body(instance) != instance; }

Instance* Instance_AllocBody(Batch* batch, std::uint64_t size) {
  assert(batch != nullptr && size >= sizeof(Instance));
  void* block = Batch_AllocZero(batch, size + sizeof(InstanceHeader));
  if (block == nullptr) return nullptr;
  auto* header = new (block) InstanceHeader{kInstanceMagic, 0, {1}};
  auto* body = new (header + 1) Instance{};
  body->body = body;
  return body;
}

Instance* Instance_Wrap(Instance* body, Batch* batch) {
  assert(body->body == body);
  Instance* wrapper = Instance_AllocBody(batch, sizeof(Instance));
  if (wrapper == nullptr) return nullptr;
  std::memcpy(wrapper, body, kHeadInUse);
  wrapper->body = body;
  return wrapper;
}

void Instance_SyncWrapper(Instance* wrapper, const Instance* body) {
  assert(wrapper != body && body->body == body);
  *wrapper = *body;
  wrapper->body = const_cast<Instance*>(body);
}

Result Instance_InitAt(void* memory, const ClassDef* def, Batch* batch) {
  if (memory == nullptr || def == nullptr) return RESULT_INVALID_PARAMETER;
  const std::uint32_t size = ClassDef_CommonPart(def).size;
  if (size < sizeof(Instance)) return RESULT_INVALID_PARAMETER;
  assert(reinterpret_cast<std::uintptr_t>(memory) % alignof(Instance) == 0);
  CallBatch own(batch);
  if (own.Get() == nullptr) return RESULT_FAILED;
  std::memset(memory, 0, size);
  auto* body = new (memory) Instance{};
  body->ops = &kInstanceOps;
  body->body = body;
  const Result result = AcquireDefinition(body, def, own.Get());
  if (result != RESULT_OK) return result;
  assert(SlotsFit(ClassDef_CommonPart(body->def)));
  body->batch = own.Get();
  own.TransferTo(body);
  return RESULT_OK;
}

Result Instance_Create(Instance** made, const ClassDef* def, Batch* batch) {
  if (made == nullptr) return RESULT_INVALID_PARAMETER;
  *made = nullptr;
  if (def == nullptr) return RESULT_INVALID_PARAMETER;
  const std::uint32_t size = ClassDef_CommonPart(def).size;
  if (size < sizeof(Instance)) return RESULT_INVALID_PARAMETER;
  CallBatch own(batch);
  if (own.Get() == nullptr) return RESULT_FAILED;
  Instance* body = Instance_AllocBody(own.Get(), size);
  if (body == nullptr) return RESULT_FAILED;
  const Result result = Instance_InitAt(body, def, own.Get());
  if (result != RESULT_OK) {
    Batch_Release(own.Get(), Instance_Header(body));
    return result;
  }
  own.TransferTo(body);
  *made = body;
  return RESULT_OK;
}

Result Instance_CreateDynamic(Instance** made, const char16_t* className, std::uint32_t flags,
                              Batch* batch) {
  if (made == nullptr) return RESULT_INVALID_PARAMETER;
  *made = nullptr;
  if (!Name_IsValid(className)) return RESULT_INVALID_PARAMETER;
  CallBatch own(batch);
  if (own.Get() == nullptr) return RESULT_FAILED;
  Instance* body = Instance_AllocBody(own.Get(), DynamicBodySize(INSTANCE_MIN_CAPACITY));
  const ClassDef* def = MakeDynamicDef(own.Get(), className, flags);
  if (body == nullptr || def == nullptr) return RESULT_FAILED;
  body->ops = &kInstanceOps;
  body->def = def;
  body->batch = own.Get();
  Instance* wrapper = Instance_Wrap(body, own.Get());
  if (wrapper == nullptr) return RESULT_FAILED;
  own.TransferTo(wrapper);
  *made = wrapper;
  return RESULT_OK;
}

Result Instance_Copy(const Instance* instance, Instance** copy, Batch* batch) {
  const bool isForeign =
      instance != nullptr && instance->ops != nullptr && instance->ops != &kInstanceOps;
  if (isForeign) return instance->ops->Clone(instance, copy);
  if (copy == nullptr) return RESULT_FAILED;
  *copy = nullptr;
  const Instance* source = Instance_LiveBody(instance);
  if (source == nullptr) return RESULT_FAILED;
  CallBatch own(batch);
  if (own.Get() == nullptr) return RESULT_FAILED;
  Instance* body = Instance_AllocBody(own.Get(), CopySize(*source->def));
  if (body == nullptr) return RESULT_FAILED;
  body->ops = &kInstanceOps;
  body->batch = own.Get();
  Result result = CopyContent(body, *source);
  Instance* handle = body;
  if (result == RESULT_OK && Instance_IsWrapped(instance)) {
    handle = Instance_Wrap(body, own.Get());
    result = OkIf(handle);
  }
  if (result != RESULT_OK) {
    (void)instance_ops::Delete(body);  // releases the references that it already holds
    return result;
  }
  own.TransferTo(handle);
  *copy = handle;
  return RESULT_OK;
}

Result instance_ops::Clone(const Instance* self, Instance** clone) {
  return Instance_Copy(self, clone, nullptr);
}

Result instance_ops::Dismantle(Instance* self) {
  Instance* body = Instance_Body(self);
  if (body == nullptr) return RESULT_INVALID_PARAMETER;
  Batch* batch = body->batch;
  if (batch == nullptr) return RESULT_FAILED;
  const bool ownsBatch = body->ownsBatch != 0;
  Batch_Release(batch, body->hostName);
  Batch_Release(batch, body->namespaceName);
  if (body->def != nullptr) {
    DestroySlots(body);
    if (self == body) ReleaseDefinition(*body);
    if (self != body) ReleaseDynamic(body, batch);
  }
  // The block that stays must not point to released memory. It may lie in the batch itself.
  *self = Instance{};
  self->ops = &kInstanceOps;
  self->body = self;
  if (ownsBatch) Batch_Destroy(batch);
  return RESULT_OK;
}

Result instance_ops::Delete(Instance* self) {
  const Instance* body = Instance_Body(self);
  if (body == nullptr) return RESULT_INVALID_PARAMETER;
  Batch* batch = body->batch;
  const bool ownsBatch = body->ownsBatch != 0;
  const Result result = Dismantle(self);
  if (result != RESULT_OK || ownsBatch) return result;
  Batch_Release(batch, Instance_Header(self));
  return RESULT_OK;
}

void Instance_Retain(Instance* instance) {
  if (instance == nullptr) return;
  assert(Instance_Header(instance)->magic == kInstanceMagic);
  [[maybe_unused]] const std::uint64_t refs = Atomic_Inc(&Instance_Header(instance)->refs);
  assert(refs > 1);
}

void Instance_Drop(Instance* instance) {
  if (instance == nullptr) return;
  assert(Instance_Header(instance)->magic == kInstanceMagic);
  assert(Instance_Header(instance)->refs.load() > 0);
  if (Atomic_Dec(&Instance_Header(instance)->refs) != 0) return;
  (void)Instance_Delete(instance);  // an instance with a reference has content
}

Result Instance_SetClassName(Instance* instance, const char16_t* name) {
  const Instance* body = Instance_LiveBody(instance);
  if (body == nullptr || !Name_IsValid(name)) return RESULT_INVALID_PARAMETER;
  ClassDef* def = Instance_PrivateDef(body);
  if (def == nullptr) return RESULT_FAILED;
  const char16_t* copy = Batch_DupText(body->batch, name);
  if (copy == nullptr) return RESULT_FAILED;
  Batch_Release(body->batch, def->name);
  def->name = copy;
  def->nameCode = Name_Code(copy);
  return RESULT_OK;
}

Result Instance_GetClassView(const Instance* instance, ClassObject* view) {
  const Instance* body = Instance_LiveBody(instance);
  return Class_View(view, body == nullptr ? nullptr : body->def);
}

}  // namespace stewardry::cim
