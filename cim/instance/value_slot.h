// The slot in which an instance keeps a property: the value in its element size, the byte
// `present`, the byte `flags`, and filler up to the slot's size. A slot does not record its type:
// every operation takes it as an argument.
//
// Every slot is aligned as its value is, and its type is at most 31 unless the contract names the
// result for larger types. A slot has no lock: one thread at a time, as for the instance's batch.
#pragma once

#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "cim/memory/batch.h"
#include "cim/memory/result.h"
#include "cim/value/values.h"

namespace stewardry::cim {

struct ValueSlot;  // bytes inside an instance

// Bytes of a slot, by type code.
constexpr std::array<std::uint8_t, kCimTypes> kSlotSizes = {
    3,  3,  3,  4,  4,  8,  8,  16, 16, 8,  16, 4,  40, 16, 16, 16,
    24, 24, 24, 24, 24, 24, 24, 24, 24, 24, 24, 24, 24, 24, 24, 24};
constexpr std::size_t kMaxSlotSize = 40;

// Returns true if each slot size is the value and two bytes, rounded up to the value's alignment.
constexpr bool SlotSizesMatchElementSizes() {
  for (std::uint32_t type = 0; type < kCimTypes; ++type) {
    const std::size_t alignment = CimType_Alignment(type);
    const std::size_t size = (kElementSizes[type] + 2 + alignment - 1) / alignment * alignment;
    if (kSlotSizes[type] != size || size > kMaxSlotSize) return false;
  }
  return true;
}
static_assert(SlotSizesMatchElementSizes());

// Bits of a slot's `flags`. The library never sets SLOT_MODIFIED; an embedding program may, and the
// read operations report it.
constexpr std::uint8_t SLOT_BORROWED = 1;
constexpr std::uint8_t SLOT_MODIFIED = 2;

// Returns true if the address has the alignment of a slot of this type.
inline bool ValueSlot_IsAligned(const ValueSlot* slot, std::uint32_t type) {
  return reinterpret_cast<std::uintptr_t>(slot) % CimType_Alignment(type) == 0;
}

// Overwrites the whole slot with the bytes of a present value and with `flags`, without releasing
// the old content. Copies nothing that the value points to. The pieces have constant sizes, for the
// reason given at CimValue_CopyBytes.
inline void ValueSlot_Store(ValueSlot* slot, std::uint32_t type, const CimValue* value,
                            std::uint8_t flags) {
  assert(ValueSlot_IsAligned(slot, type));
  auto* bytes = reinterpret_cast<std::uint8_t*>(slot);
  const std::uint64_t rest = 1u | static_cast<std::uint32_t>(flags) << 8;  // present, flags, filler
  switch (kElementSizes[type]) {
    case 1:
      std::memcpy(bytes, value, 1);
      std::memcpy(bytes + 1, &rest, 2);
      break;
    case 2:
      std::memcpy(bytes, value, 2);
      std::memcpy(bytes + 2, &rest, 2);
      break;
    case 4:
      std::memcpy(bytes, value, 4);
      std::memcpy(bytes + 4, &rest, 4);
      break;
    case 8:
      std::memcpy(bytes, value, 8);
      std::memcpy(bytes + 8, &rest, 8);
      break;
    case sizeof(ArrayValue): {
      // By field: a load of both words would wait for the stores that made them.
      const std::uint64_t size = value->array.size;
      std::memcpy(bytes, &value->array.data, 8);
      std::memcpy(bytes + 8, &size, 8);
      std::memcpy(bytes + sizeof(ArrayValue), &rest, 8);
      break;
    }
    default:
      std::memcpy(bytes, value, sizeof(CimDatetime));
      std::memcpy(bytes + sizeof(CimDatetime), &rest, 4);
  }
}

// Overwrites the slot with a copy of `value` in `batch`, without releasing the old content. Stores
// a null for FLAG_NULL, a null `value`, and a null pointer of a STRING, REFERENCE or INSTANCE. An
// array with null `data` is present and has no elements. With FLAG_BORROW the pointers are stored
// instead of copies and must outlive the slot. Does nothing for a type above 31, which has no slot.
// Returns RESULT_OK. Returns RESULT_FAILED and leaves a null slot if allocation fails, for a
// STRINGA, REFERENCEA or INSTANCEA with data and no elements, and for one with a null element; or
// returns the failure of Instance_Copy.
Result ValueSlot_Set(ValueSlot* slot, std::uint32_t type, const CimValue* value,
                     std::uint32_t flags, Batch* batch);

// Replaces the content as ValueSlot_Set does and releases the old content once the new one is
// complete. A failure leaves the old content.
Result ValueSlot_Assign(ValueSlot* slot, std::uint32_t type, const CimValue* value,
                        std::uint32_t flags, Batch* batch);

// Overwrites `destination` with a deep copy, borrowed data included. Returns what ValueSlot_Set
// returns.
Result ValueSlot_Copy(ValueSlot* destination, std::uint32_t type, const ValueSlot* source,
                      Batch* batch);

// Releases what the slot owns and fills it with 0xDD: it must be set before it is read again. Does
// nothing for a type above 31.
void ValueSlot_Destroy(ValueSlot* slot, std::uint32_t type, Batch* batch);

// Releases what the slot owns and leaves a null. Does nothing for a type above 31.
void ValueSlot_Clear(ValueSlot* slot, std::uint32_t type, Batch* batch);

// Copies the two bytes after the value. For a type above 31 they are false and 0.
inline void ValueSlot_ReadFlags(const ValueSlot* slot, std::uint32_t type, bool* present,
                                std::uint8_t* flags) {
  *present = false;
  *flags = 0;
  if (type >= kCimTypes) return;
  assert(ValueSlot_IsAligned(slot, type));
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(slot);
  *present = bytes[kElementSizes[type]] != 0;
  *flags = bytes[kElementSizes[type] + 1];
}

// Copies the value's bytes and the two bytes after it. What they point to stays the slot's. For a
// type above 31 `value` is left alone and the other two are false and 0.
inline void ValueSlot_Read(const ValueSlot* slot, std::uint32_t type, CimValue* value,
                           bool* present, std::uint8_t* flags) {
  ValueSlot_ReadFlags(slot, type, present, flags);
  if (type < kCimTypes) CimValue_CopyBytes(value, slot, kElementSizes[type]);
}

// Returns true if the slot has a value.
inline bool ValueSlot_IsPresent(const ValueSlot* slot, std::uint32_t type) {
  assert(type < kCimTypes && ValueSlot_IsAligned(slot, type));
  return reinterpret_cast<const std::uint8_t*>(slot)[kElementSizes[type]] != 0;
}

// Returns true if both slots are null or hold equal values. REAL32 and REAL64 compare as numbers,
// texts unit by unit, a REFERENCE by its keys. INSTANCE, arrays and types above 31 are never equal.
bool ValueSlot_Equal(const ValueSlot* a, const ValueSlot* b, std::uint32_t type);

// Stores a copy of `*element` at `data[index]`. The caller reserved that many elements: `index` is
// not checked. For STRING, REFERENCE and INSTANCE `element` points to a pointer, which may be null.
// Returns RESULT_OK, RESULT_INVALID_PARAMETER if `elementType` is not a scalar type, or
// RESULT_SERVER_LIMITS_EXCEEDED if allocation fails.
Result ArrayValue_StoreAt(Batch* batch, std::uint32_t elementType, void* data, std::uint32_t index,
                          const void* element);

}  // namespace stewardry::cim
