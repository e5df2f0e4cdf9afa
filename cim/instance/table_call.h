// The calls that go through an object's operations table, and the outs that a caller may leave
// empty. Every object begins with, or holds, a pointer `ops` to its table.
#pragma once

#include "cim/memory/result.h"

namespace stewardry::cim {

// Calls `operation` of the object's table. RESULT_INVALID_PARAMETER for an empty object or table.
template <class Object, class Operation, class... Arguments>
Result CallThroughTable(Object* object, Operation operation, Arguments... arguments) {
  if (object == nullptr || object->ops == nullptr) return RESULT_INVALID_PARAMETER;
  return (object->ops->*operation)(object, arguments...);
}

// Stores the value unless the out pointer is empty.
template <class Value>
void StoreOut(Value* out, const Value& value) {
  if (out != nullptr) *out = value;
}

}  // namespace stewardry::cim
