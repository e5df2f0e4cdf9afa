// Instances in the packed form, in which they travel between processes: a flat sequence of bytes
// without pointers, see pack_buffer.h for its rules and packed_walk.h for reading it in place.
//
//   head            INSTANCE_PACK_HEAD
//   class           flags, name, name space (texts)
//   property count
//   each property   flags, name (text), type, present (a byte), the value if it is present
//   tail            INSTANCE_PACK_TAIL
//
// An instance that is unpacked without copying borrows its texts and arrays from the bytes: they
// must stay in place as long as it lives.
#pragma once

#include <cstdint>

#include "cim/instance/instance.h"
#include "cim/memory/batch.h"
#include "cim/memory/result.h"
#include "cim/packing/pack_buffer.h"
#include "cim/packing/packed_walk.h"

namespace stewardry::cim {

// True leaves the property out. `filterData` is the caller's.
using PackFilter = bool (*)(const char16_t* propertyName, void* filterData);

// The most properties of an instance that is unpacked. Each new name is compared with those before
// it, so bytes from anyone could ask for hours of that.
constexpr std::uint32_t kMaxUnpackedProperties = 4096;

// What Instance_PackToBatch first asks for, so that most instances fit without growing.
constexpr std::uint32_t kPackCapacity = 16384;

// Appends the instance to a writer: with `keysOnly` its key properties and no others, else those
// that the filter, if there is one, doesn't leave out. A nested REFERENCE has its keys only, a
// nested INSTANCE everything. A parameter that goes out and is named "LumoReturn" is packed as
// "ReturnValue". RESULT_INVALID_PARAMETER for an empty instance or buffer and for an empty element
// of a REFERENCEA or INSTANCEA. RESULT_FAILED when memory fails; for a present REFERENCE or
// INSTANCE without an instance; and for a present array without data, save a STRINGA, REFERENCEA or
// INSTANCEA of size 0. After a failure the buffer's content is undefined.
// Instances more than kMaxPackedDepth inside one another, or with more than kMaxUnpackedProperties,
// are packed, but not read back.
Result Instance_Pack(const Instance* instance, bool keysOnly, PackFilter filter, void* filterData,
                     PackBuf* buffer);

// Packs all that the filter lets pass into a page of its own at the head of the batch's list, and
// stores the packed bytes' address and number. RESULT_INVALID_PARAMETER for an empty batch or out
// pointer too; a failure leaves the batch as it was.
Result Instance_PackToBatch(const Instance* instance, PackFilter filter, void* filterData,
                            Batch* batch, void** bytes, std::uint32_t* size);

// Reads one instance from the reader's position and makes it a dynamic one in `batch`, or, if that
// is empty, in one of its own with everything nested in it. Without `copy` names, texts and arrays
// are borrowed from the bytes, and each property's flags get FLAG_BORROW; with it they lose it, and
// the class of a nested instance has no flags, as in any copy. A property with FLAG_NULL becomes a
// null, whatever its value. The texts of a STRINGA are made pointers in place: bytes that hold one
// are read once.
// RESULT_INVALID_PARAMETER for an empty argument, bytes that aren't aligned to 8, a wrong tail, a
// bad class name or property name; RESULT_ALREADY_EXISTS for a property twice; RESULT_FAILED when
// memory fails, for bytes that end too soon or have a wrong head, a type above 31, a text without
// its end, offsets out of order, more than kMaxPackedDepth instances inside one another, or more
// than kMaxUnpackedProperties properties in one. After a failure *made is empty, and a batch given
// keeps what was built. Memory is bounded by the bytes.
Result Instance_Unpack(Instance** made, PackBuf* reader, Batch* batch, bool copy);

// The same without copying, over `size` bytes; true for RESULT_OK. Bytes at an address that isn't
// aligned to 8 are moved into the batch first, and refused without one.
bool Instance_UnpackBytes(Batch* batch, void* bytes, std::uint32_t size, Instance** made);

}  // namespace stewardry::cim
