// From data that is all text to typed instances: properties set from text by their own type, octet
// strings from Base64, and the rebuilding of an instance on a class of a schema, which resolves the
// instances nested in it. What a text is worth is decided by the target's property, never by the
// source.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cim/instance/class_definitions.h"
#include "cim/instance/instance.h"
#include "cim/memory/result.h"
#include "cim/value/values.h"

namespace stewardry::cim {

// Text flags. This bit lets a UINT8A property whose BOOLEAN qualifier "Octetstring" is true take
// one Base64 text instead of numbers. It is then stored as an octet string: four bytes with the
// total length, itself included, big-endian, then the content.
constexpr std::uint32_t kTextOctetString = 2;

// How deep Instance_ConvertToClass follows instances nested in instances.
constexpr std::uint32_t kMaxConvertDepth = 64;

// Stores `text` in the property of that name, converted to the property's type; a STRING takes it
// as it is, an array becomes an array of this one text. RESULT_INVALID_PARAMETER for an empty
// argument, RESULT_NO_SUCH_PROPERTY, RESULT_FAILED for a text that is not a value of the type and
// for a type that no text converts to; the failures of Instance_SetArrayFromTexts for an array and
// those of StoreProperty. Every failure leaves the old value. The text stays the caller's.
Result Instance_SetFromText(Instance* instance, const char16_t* name, const char16_t* text,
                            std::uint32_t textFlags);

// Stores an array of `count` texts, each converted to the element type. An octet string takes the
// first text alone. RESULT_INVALID_PARAMETER for an empty argument, an octet string without a text,
// and a text that is not a value of the type; RESULT_NO_SUCH_PROPERTY; RESULT_FAILED for an element
// type that no text converts to and for a text that is no Base64;
// RESULT_SERVER_LIMITS_EXCEEDED when there is no memory for the array or for a look at the class;
// else what StoreProperty gives, which for a scalar property is RESULT_TYPE_MISMATCH. Every failure
// leaves the old value.
Result Instance_SetArrayFromTexts(Instance* instance, const char16_t* name,
                                  const char16_t* const* texts, std::uint32_t count,
                                  std::uint32_t textFlags);

// Copies the value's element-size bytes to `value`; what a pointer in them points to stays the
// instance's. RESULT_TYPE_MISMATCH for a property of another type, RESULT_NOT_FOUND for a null,
// RESULT_INVALID_PARAMETER for an empty `value`, tested in this order; the failures of
// ReadProperty.
Result Instance_GetValueOfType(const Instance* instance, const char16_t* name, void* value,
                               std::uint32_t type);

// Makes an instance of `target` in `memory` (`target->size` bytes aligned to 8) and fills it from
// `source`: texts are converted to the target's types, nested instances are rebuilt on their
// classes in the target's schema, other values keep their type. `target` is a class, or what
// MethodDef_AsClass gives of a method, whose parameters are then the properties. Without `batch`
// the instance has its own. With `keysOnly`, properties of the source without FLAG_KEY are not
// looked at. Without `skipKeyCheck`, keys are checked first: one that the source lacks takes the
// target's default, which is borrowed, and one that the target lacks is a failure. Without `copy`,
// arrays and other values that no text was converted to are borrowed: the source must then outlive
// the new instance.
//
// RESULT_INVALID_PARAMETER: an empty memory, target or source. RESULT_FAILED: neither class nor
// method, or nesting deeper than kMaxConvertDepth. RESULT_NO_SUCH_PROPERTY: a property or key that
// the other side lacks, or a nested instance whose class is not in the schema.
// RESULT_TYPE_MISMATCH: a value that the target's property doesn't take.
// RESULT_SERVER_LIMITS_EXCEEDED: no memory. Else the failures of the two operations above and of
// StoreProperty. After a failure a partly filled instance in the caller's batch is left to the
// caller, who dismantles it; with a batch made here everything is given back and the memory holds
// no instance.
Result Instance_ConvertToClass(void* memory, const ClassDef* target, const Instance* source,
                               bool keysOnly, bool skipKeyCheck, bool copy, Batch* batch,
                               std::uint32_t textFlags);

// The byte array under construction: `data` is a block of the library's heap with the four bytes of
// length in front, or empty, and `size` its length.
using OctetSink = ArrayValue;

// A Base64Sink whose `data` is an OctetSink: appends the chunk. -1 when the block can't be had or
// its length would pass 32 bits, and the sink is then empty. Whoever owns the sink frees its block
// with Heap_Free.
int OctetSink_Append(const std::uint8_t* chunk, std::size_t length, void* sink);

}  // namespace stewardry::cim
