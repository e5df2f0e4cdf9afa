// Converts text to typed instances: sets properties from text, octet strings from Base64, and
// rebuilds an instance, with the instances nested in it, on a class of a schema. The type of the
// target's property decides how a text is converted, never the source.
//
// One thread at a time uses an instance and its batch.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cim/instance/class_definitions.h"
#include "cim/instance/instance.h"
#include "cim/memory/result.h"
#include "cim/value/values.h"

namespace stewardry::cim {

// Text flag: a UINT8A property whose BOOLEAN qualifier "Octetstring" is true accepts one Base64
// text instead of numbers. The octet string is stored as four bytes with the total length,
// big-endian, these four included, and the content.
constexpr std::uint32_t kTextOctetString = 2;

// The deepest nesting of instances that Instance_ConvertToClass converts.
constexpr std::uint32_t kMaxConvertDepth = 64;

// Stores `text` in the property of that name, converted to the property's type. A STRING is stored
// unchanged, an array gets this one element. The text stays the caller's. Returns
// RESULT_INVALID_PARAMETER for a null argument, RESULT_NO_SUCH_PROPERTY, RESULT_FAILED for a text
// that is not a value of the type and for a type without conversion, the failures of
// Instance_SetArrayFromTexts for an array, and those of StoreProperty. Every failure leaves the old
// value.
Result Instance_SetFromText(Instance* instance, const char16_t* name, const char16_t* text,
                            std::uint32_t textFlags);

// Stores an array of `count` texts, each converted to the element type. An octet string uses only
// the first text. Returns RESULT_INVALID_PARAMETER for a null argument, an octet string without a
// text, and a text that is not a value of the type; RESULT_NO_SUCH_PROPERTY; RESULT_TYPE_MISMATCH
// for a scalar property; RESULT_FAILED for an element type without conversion and for a text that
// is not Base64; RESULT_SERVER_LIMITS_EXCEEDED if allocation of the array or of the class object
// fails; and otherwise what StoreProperty returns. Every failure leaves the old value.
Result Instance_SetArrayFromTexts(Instance* instance, const char16_t* name,
                                  const char16_t* const* texts, std::uint32_t count,
                                  std::uint32_t textFlags);

// Copies the value's bytes, as many as kElementSizes says, to `value`. What a pointer in them
// points to stays the instance's. Returns the failures of ReadProperty, RESULT_TYPE_MISMATCH for a
// property of another type, RESULT_NOT_FOUND for a null, and RESULT_INVALID_PARAMETER for a null
// `value`, checked in this order.
Result Instance_GetValueOfType(const Instance* instance, const char16_t* name, void* value,
                               std::uint32_t type);

// Makes an instance of `target` in `memory` and fills it from `source`: texts are converted to the
// target's types, nested instances are rebuilt on their classes in the target's schema, other
// values keep their type. Requires `memory` of `target->size` bytes, aligned to 8.
// - `target`: a class, or MethodDef_AsClass of a method, whose parameters are then the properties.
// - `keysOnly`: ignores properties of the source without FLAG_KEY.
// - `skipKeyCheck`: omits the key check. The check borrows the target's default for a key that the
//   source lacks, and fails for a key that the target lacks.
// - `copy`: copies arrays and other values that were not converted from text. Without it they are
//   borrowed, and the source must outlive the new instance.
// - `batch`: holds the content, or is null for a batch of the instance's own.
//
// Returns RESULT_OK, or
// - RESULT_INVALID_PARAMETER for a null memory, target or source;
// - RESULT_FAILED for a target that is neither class nor method, and for nesting deeper than
//   kMaxConvertDepth;
// - RESULT_NO_SUCH_PROPERTY for a property or key that the other side lacks, and for a nested
//   instance whose class is not in the schema;
// - RESULT_TYPE_MISMATCH for a value of a type that the target's property does not accept;
// - RESULT_SERVER_LIMITS_EXCEEDED if allocation fails;
// - the failures of Instance_SetFromText, Instance_SetArrayFromTexts and StoreProperty.
// After a failure a partly filled instance in the caller's batch remains, for the caller to
// dismantle. With a batch of its own everything is released and the memory holds no instance.
Result Instance_ConvertToClass(void* memory, const ClassDef* target, const Instance* source,
                               bool keysOnly, bool skipKeyCheck, bool copy, Batch* batch,
                               std::uint32_t textFlags);

// An octet string under construction: `data` is null or a block from Heap_Reallocate that begins
// with the four bytes of the total length, and `size` is that length.
using OctetSink = ArrayValue;

// The Base64Sink for an OctetSink, passed as `sink`: appends the chunk and returns 0. Returns -1
// and leaves an empty sink if allocation fails or the length would exceed 32 bits. The owner of the
// sink frees its block with Heap_Free.
int OctetSink_Append(const std::uint8_t* chunk, std::size_t length, void* sink);

}  // namespace stewardry::cim
