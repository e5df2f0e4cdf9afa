#include "cim/instance/value_slot.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <type_traits>

#include "cim/instance/instance.h"

namespace stewardry::cim {
namespace {

constexpr std::uint8_t kPoison = 0xDD;

std::uint8_t* BytesOf(ValueSlot* slot) { return reinterpret_cast<std::uint8_t*>(slot); }

// Loads a value from an address of any alignment.
template <class T>
T Load(const void* from) {
  T value;
  // Also for pointers. NOLINTNEXTLINE(bugprone-sizeof-expression)
  std::memcpy(&value, from, sizeof value);
  return value;
}

// Calls piece(offset, size) for the pieces of a slot of this type. Once inlined, each size is a
// constant, for the reason given at CimValue_CopyBytes.
template <class Piece>
void ForPieces(std::uint32_t type, Piece piece) {
  assert(type < kCimTypes);
  using std::integral_constant;
  const std::size_t size = kSlotSizes[type];
  if (size < 8) {
    piece(0, integral_constant<std::size_t, 3>());
    if (size == 4) piece(3, integral_constant<std::size_t, 1>());
    return;
  }
  piece(0, integral_constant<std::size_t, 8>());
  if (size > 8) piece(8, integral_constant<std::size_t, 8>());
  if (size > 16) piece(16, integral_constant<std::size_t, 8>());
  if (size > 24) piece(24, integral_constant<std::size_t, kMaxSlotSize - 24>());
}

void FillSlot(ValueSlot* slot, std::uint32_t type, std::uint8_t byte) {
  ForPieces(type, [=](std::size_t at, auto size) { std::memset(BytesOf(slot) + at, byte, size); });
}

void CopySlot(ValueSlot* to, std::uint32_t type, const std::uint8_t* from) {
  ForPieces(type,
            [=](std::size_t at, auto size) { std::memcpy(BytesOf(to) + at, from + at, size); });
}

Result SetPointer(ValueSlot* slot, std::uint32_t type, const CimValue& value, std::uint32_t flags,
                  Batch* batch) {
  if (value.string == nullptr) return RESULT_OK;
  if ((flags & FLAG_BORROW) != 0) {
    ValueSlot_Store(slot, type, &value, SLOT_BORROWED);
    return RESULT_OK;
  }
  assert(batch != nullptr);
  CimValue copy = value;
  if (type == CIM_STRING) {
    copy.string = Batch_DupText(batch, value.string);
    if (copy.string == nullptr) return RESULT_FAILED;
  } else if (const Result result = Instance_Copy(value.instance, &copy.instance, batch);
             result != RESULT_OK) {
    return result;
  }
  ValueSlot_Store(slot, type, &copy, 0);
  return RESULT_OK;
}

// Copies the pointers and after them the texts into one block, which one release frees.
const char16_t** CopyTexts(const char16_t* const* texts, std::uint32_t count, Batch* batch) {
  assert(texts != nullptr && count != 0);
  std::size_t units = 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    if (texts[i] == nullptr) return nullptr;
    units += std::char_traits<char16_t>::length(texts[i]) + 1;
  }
  const std::size_t tableSize = count * sizeof(char16_t*);
  auto* block = static_cast<std::uint8_t*>(Batch_Alloc(batch, tableSize + units * 2));
  if (block == nullptr) return nullptr;
  auto** table = reinterpret_cast<const char16_t**>(block);
  auto* text = reinterpret_cast<char16_t*>(block + tableSize);
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::size_t length = std::char_traits<char16_t>::length(texts[i]) + 1;
    std::memcpy(text, texts[i], length * 2);
    table[i] = text;
    text += length;
  }
  return table;
}

void DeleteInstances(Instance** instances, std::uint32_t count) {
  for (std::uint32_t i = 0; i < count; ++i)
    (void)Instance_Delete(instances[i]);  // fails only for a null
}

Instance** CopyInstances(Instance* const* instances, std::uint32_t count, Batch* batch) {
  assert(instances != nullptr && count != 0);
  if (std::find(instances, instances + count, nullptr) != instances + count) return nullptr;
  // A table of pointers. NOLINTNEXTLINE(bugprone-sizeof-expression)
  auto** table = static_cast<Instance**>(Batch_AllocZero(batch, count * sizeof(Instance*)));
  if (table == nullptr) return nullptr;
  for (std::uint32_t i = 0; i < count; ++i) {
    if (Instance_Copy(instances[i], &table[i], batch) == RESULT_OK) continue;
    DeleteInstances(table, i);  // they may hold references on class objects
    return nullptr;
  }
  return table;
}

void* CopyPlain(const void* data, std::size_t size, Batch* batch) {
  void* copy = Batch_Alloc(batch, size);
  if (copy != nullptr) std::memcpy(copy, data, size);
  return copy;
}

// Returns null if allocation fails, and for a table of pointers that has no elements or a null one.
void* CopyElements(std::uint32_t type, const ArrayValue& array, Batch* batch) {
  assert(CimType_IsArray(type) && array.data != nullptr && batch != nullptr);
  const std::uint32_t element = CimType_Element(type);
  if (element < CIM_STRING)
    return CopyPlain(array.data, std::size_t{array.size} * kElementSizes[element], batch);
  if (array.size == 0) return nullptr;
  if (element == CIM_STRING)
    return CopyTexts(static_cast<const char16_t* const*>(array.data), array.size, batch);
  return CopyInstances(static_cast<Instance* const*>(array.data), array.size, batch);
}

Result SetArray(ValueSlot* slot, std::uint32_t type, const ArrayValue& array, std::uint32_t flags,
                Batch* batch) {
  CimValue stored;
  stored.array = {nullptr, array.size, 0};
  if (array.data == nullptr) {
    stored.array.size = 0;
  } else if ((flags & FLAG_BORROW) != 0) {
    stored.array = array;
    ValueSlot_Store(slot, type, &stored, SLOT_BORROWED);
    return RESULT_OK;
  } else if (array.size != 0 || CimType_Element(type) >= CIM_STRING) {
    stored.array.data = CopyElements(type, array, batch);
    if (stored.array.data == nullptr) return RESULT_FAILED;
  }
  ValueSlot_Store(slot, type, &stored, 0);
  return RESULT_OK;
}

void ReleaseArray(std::uint32_t type, const ArrayValue& array, Batch* batch) {
  if (array.data == nullptr) return;
  assert(batch != nullptr);
  if (CimType_HoldsInstances(type))
    DeleteInstances(static_cast<Instance**>(array.data), array.size);
  Batch_Release(batch, array.data);
}

// Releases what a slot with a pointer owns. A borrowed value and a null own nothing.
void ReleaseValue(ValueSlot* slot, std::uint32_t type, Batch* batch) {
  assert(type >= CIM_STRING && ValueSlot_IsAligned(slot, type));
  const std::uint8_t* bytes = BytesOf(slot);
  if ((bytes[kElementSizes[type] + 1] & SLOT_BORROWED) != 0) return;
  if (CimType_IsArray(type)) return ReleaseArray(type, Load<ArrayValue>(bytes), batch);
  if (type == CIM_STRING) return Batch_Release(batch, Load<const void*>(bytes));
  (void)Instance_Delete(Load<Instance*>(bytes));  // fails only for a null
}

template <class T>
bool EqualAs(const ValueSlot* a, const ValueSlot* b) {
  return Load<T>(a) == Load<T>(b);
}

bool EqualDatetimes(const ValueSlot* a, const ValueSlot* b) {
  const auto left = Load<CimDatetime>(a), right = Load<CimDatetime>(b);
  return Datetime_Equal(&left, &right);
}

bool EqualTexts(const ValueSlot* a, const ValueSlot* b) {
  const auto *left = Load<const char16_t*>(a), *right = Load<const char16_t*>(b);
  if (left == nullptr || right == nullptr) return left == right;
  while (*left != 0 && *left == *right) ++left, ++right;
  return *left == *right;
}

bool EqualReferences(const ValueSlot* a, const ValueSlot* b) {
  const auto *left = Load<const Instance*>(a), *right = Load<const Instance*>(b);
  return (left == nullptr && right == nullptr) || Instance_KeysEqual(left, right);
}

// By scalar type. An INSTANCE never compares equal and has no entry.
using EqualTest = bool (*)(const ValueSlot*, const ValueSlot*);
constexpr std::array<EqualTest, CIM_INSTANCE> kEqualTests = {
    EqualAs<std::uint8_t>,  EqualAs<std::uint8_t>,
    EqualAs<std::uint8_t>,  EqualAs<std::uint16_t>,
    EqualAs<std::uint16_t>, EqualAs<std::uint32_t>,
    EqualAs<std::uint32_t>, EqualAs<std::uint64_t>,
    EqualAs<std::uint64_t>, EqualAs<float>,
    EqualAs<double>,        EqualAs<char16_t>,
    EqualDatetimes,         EqualTexts,
    EqualReferences};
static_assert(kEqualTests.back() == EqualReferences);

Result StoreText(Batch* batch, const char16_t* text, char16_t** cell) {
  assert(batch != nullptr);
  *cell = text == nullptr ? nullptr : Batch_DupText(batch, text);
  return text == nullptr || *cell != nullptr ? RESULT_OK : RESULT_SERVER_LIMITS_EXCEEDED;
}

Result StoreInstance(Batch* batch, const Instance* instance, Instance** cell) {
  assert(batch != nullptr);
  *cell = nullptr;
  if (instance == nullptr || Instance_Copy(instance, cell, batch) == RESULT_OK) return RESULT_OK;
  return RESULT_SERVER_LIMITS_EXCEEDED;
}

// Returns true for a value that needs no copy and replaces one that needs no release.
bool IsStoredAtOnce(const ValueSlot* slot, std::uint32_t type, const CimValue* value,
                    std::uint32_t flags) {
  if (value == nullptr || (flags & FLAG_NULL) != 0) return false;
  if (type < CIM_STRING) return true;
  if ((flags & FLAG_BORROW) == 0 || Load<const void*>(value) == nullptr) return false;
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(slot);
  return Load<const void*>(bytes) == nullptr ||
         (bytes[kElementSizes[type] + 1] & SLOT_BORROWED) != 0;
}

// Makes the new value and releases the old one. Out of line: its frame would cost the caller, which
// seldom gets here, as much as the caller's work.
[[gnu::noinline]] Result Replace(ValueSlot* slot, std::uint32_t type, const CimValue* value,
                                 std::uint32_t flags, Batch* batch) {
  alignas(8) std::uint8_t replacement[kMaxSlotSize];
  const Result result =
      ValueSlot_Set(reinterpret_cast<ValueSlot*>(replacement), type, value, flags, batch);
  if (result != RESULT_OK) return result;
  ValueSlot_Destroy(slot, type, batch);
  CopySlot(slot, type, replacement);
  return RESULT_OK;
}

}  // namespace

Result ValueSlot_Set(ValueSlot* slot, std::uint32_t type, const CimValue* value,
                     std::uint32_t flags, Batch* batch) {
  if (type >= kCimTypes) return RESULT_OK;  // such a slot has no size
  assert(slot != nullptr && ValueSlot_IsAligned(slot, type));
  const bool isNull = (flags & FLAG_NULL) != 0 || value == nullptr;
  if (!isNull && type < CIM_STRING) {
    ValueSlot_Store(slot, type, value, 0);
    return RESULT_OK;
  }
  FillSlot(slot, type, 0);
  if (isNull) return RESULT_OK;
  if (CimType_IsArray(type)) return SetArray(slot, type, value->array, flags, batch);
  return SetPointer(slot, type, *value, flags, batch);
}

Result ValueSlot_Assign(ValueSlot* slot, std::uint32_t type, const CimValue* value,
                        std::uint32_t flags, Batch* batch) {
  if (type >= kCimTypes) return RESULT_OK;
  if (IsStoredAtOnce(slot, type, value, flags)) {
    ValueSlot_Store(slot, type, value, type < CIM_STRING ? 0 : SLOT_BORROWED);
    return RESULT_OK;
  }
  return Replace(slot, type, value, flags, batch);
}

Result ValueSlot_Copy(ValueSlot* destination, std::uint32_t type, const ValueSlot* source,
                      Batch* batch) {
  assert(destination != source);
  CimValue value;
  bool present = false;
  std::uint8_t slotFlags;
  ValueSlot_Read(source, type, &value, &present, &slotFlags);
  return ValueSlot_Set(destination, type, &value, present ? 0 : FLAG_NULL, batch);
}

void ValueSlot_Destroy(ValueSlot* slot, std::uint32_t type, Batch* batch) {
  if (type >= kCimTypes) return;
  assert(slot != nullptr);
  if (type >= CIM_STRING) ReleaseValue(slot, type, batch);
  FillSlot(slot, type, kPoison);
}

void ValueSlot_Clear(ValueSlot* slot, std::uint32_t type, Batch* batch) {
  ValueSlot_Destroy(slot, type, batch);
  if (type < kCimTypes) FillSlot(slot, type, 0);
}

bool ValueSlot_Equal(const ValueSlot* a, const ValueSlot* b, std::uint32_t type) {
  if (type >= kEqualTests.size()) return false;
  const bool present = ValueSlot_IsPresent(a, type);
  if (present != ValueSlot_IsPresent(b, type)) return false;
  return !present || kEqualTests[type](a, b);
}

Result ArrayValue_StoreAt(Batch* batch, std::uint32_t elementType, void* data, std::uint32_t index,
                          const void* element) {
  if (elementType >= CIM_ARRAY) return RESULT_INVALID_PARAMETER;
  assert(data != nullptr && element != nullptr);
  if (elementType == CIM_STRING)
    return StoreText(batch, Load<const char16_t*>(element), static_cast<char16_t**>(data) + index);
  if (elementType > CIM_STRING)
    return StoreInstance(batch, Load<const Instance*>(element),
                         static_cast<Instance**>(data) + index);
  const std::size_t size = kElementSizes[elementType];
  std::memcpy(static_cast<std::uint8_t*>(data) + index * size, element, size);
  return RESULT_OK;
}

}  // namespace stewardry::cim
