// What the operations of instances, class objects and sets share: the call through an object's
// table, outs that a caller may leave null, and texts that may be null.
#pragma once

#include "cim/memory/batch.h"
#include "cim/memory/result.h"

namespace stewardry::cim {

// Calls `operation` of the object's table. Requires a member `ops`. Returns
// RESULT_INVALID_PARAMETER for a null object or table.
template <class Object, class Operation, class... Arguments>
Result CallThroughTable(Object* object, Operation operation, Arguments... arguments) {
  if (object == nullptr || object->ops == nullptr) return RESULT_INVALID_PARAMETER;
  return (object->ops->*operation)(object, arguments...);
}

// Stores the value unless `out` is null.
template <class Value>
void StoreOut(Value* out, const Value& value) {
  if (out != nullptr) *out = value;
}

// Stores a copy in `batch`, or leaves `*copy` alone for a null text. Returns false if allocation
// fails.
inline bool CopyOptionalText(Batch* batch, const char16_t* text, const char16_t** copy) {
  if (text == nullptr) return true;
  *copy = Batch_DupText(batch, text);
  return *copy != nullptr;
}

}  // namespace stewardry::cim
