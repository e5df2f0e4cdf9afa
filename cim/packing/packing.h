// Instances in the packed form, which is sent between processes: a flat sequence of bytes without
// pointers. pack_buffer.h defines the items, packed_walk.h reads them in place.
//
//   head            INSTANCE_PACK_HEAD
//   class           flags, name, name space (texts)
//   property count
//   each property   flags, name (text), type, present (a byte), the value if present
//   tail            INSTANCE_PACK_TAIL
//
// One thread at a time uses an instance, a buffer and a batch.
#pragma once

#include <cstdint>

#include "cim/instance/instance.h"
#include "cim/memory/batch.h"
#include "cim/memory/result.h"
#include "cim/packing/pack_buffer.h"
#include "cim/packing/packed_walk.h"

namespace stewardry::cim {

// Returns true to leave the property out. Called once for each property.
using PackFilter = bool (*)(const char16_t* propertyName, void* filterData);

// The largest number of properties that is unpacked. Each new name is compared with those before
// it: without a limit untrusted bytes could cost hours.
constexpr std::uint32_t kMaxUnpackedProperties = 4096;

// The first capacity in Instance_PackToBatch. Most instances fit.
constexpr std::uint32_t kPackCapacity = 16384;

// Appends the instance to a writer: with `keysOnly` the key properties, otherwise those that the
// filter, which may be null, does not leave out. A nested REFERENCE is packed with its keys only, a
// nested INSTANCE with all properties. An outgoing parameter named "LumoReturn" is packed as
// "ReturnValue". Returns RESULT_OK; RESULT_INVALID_PARAMETER for a null instance or buffer and for
// a null element of a REFERENCEA or INSTANCEA; RESULT_FAILED if allocation fails, for a present
// REFERENCE or INSTANCE without an instance, and for a present array without data, except a
// STRINGA, REFERENCEA or INSTANCEA of size 0. After a failure the buffer's content is undefined.
// Nesting deeper than kMaxPackedDepth and more than kMaxUnpackedProperties properties are packed,
// but cannot be unpacked.
Result Instance_Pack(const Instance* instance, bool keysOnly, PackFilter filter, void* filterData,
                     PackBuf* buffer);

// Packs the instance, without the properties that the filter leaves out, into a page of its own at
// the head of the batch's list, and stores the address and number of the packed bytes. Returns what
// Instance_Pack returns, and RESULT_INVALID_PARAMETER for a null batch or out. A failure leaves the
// batch unchanged.
Result Instance_PackToBatch(const Instance* instance, PackFilter filter, void* filterData,
                            Batch* batch, void** bytes, std::uint32_t* size);

// Reads one instance at the reader's position and makes a dynamic instance, with the instances
// nested in it, in `batch` or, if that is null, in a batch of its own. The bytes are untrusted; the
// memory used is proportional to them.
// - Without `copy`: names, texts and arrays are borrowed from the bytes, which must stay in place
//   as long as the instance exists. Each property's flags get FLAG_BORROW.
// - With `copy`: everything is copied. Flags lose FLAG_BORROW, and the class of a nested instance
//   has no flags, as in any copy.
// A property with FLAG_NULL becomes a null, with or without a value. The offsets of a STRINGA are
// replaced by pointers in place: bytes that hold one can be read once.
//
// Returns RESULT_OK. Otherwise stores null, keeps what was built in the caller's batch, and returns
// - RESULT_INVALID_PARAMETER for a null argument, bytes not aligned to 8, a wrong tail, and an
//   invalid class or property name;
// - RESULT_ALREADY_EXISTS for two properties of one name;
// - RESULT_FAILED if allocation fails, and for bytes that end too soon, a wrong head, a wrong type,
//   a text without terminator, offsets that decrease, nesting deeper than kMaxPackedDepth, and more
//   than kMaxUnpackedProperties properties.
Result Instance_Unpack(Instance** made, PackBuf* reader, Batch* batch, bool copy);

// Unpacks without `copy` as Instance_Unpack does, into *instance: for a caller that reads one
// instance after the other. *instance is null, or what an earlier call has stored and the caller
// has only read since. If class, name space and the properties' flags, names and types are those of
// before, and so in nested instances, values are replaced in place, no name is checked again and
// nothing is allocated; otherwise the instance is released and another one made. The caller reads
// each call's result through *instance: pointers from the earlier one are invalid.
// - The instance has a batch of its own; the caller ends it with Instance_Delete or Instance_Drop.
//   One that has more than one reference is not changed: the caller's reference is released.
// - Names are copies, texts and arrays are borrowed from the bytes, which must stay in place until
//   the next call or the end of the instance.
//
// Returns what Instance_Unpack returns. After any failure but that of a null argument the instance
// is released and *instance null.
Result Instance_UnpackInto(Instance** instance, PackBuf* reader);

// Unpacks `size` bytes without copying and returns true on success. Bytes not aligned to 8 are
// first copied into the batch, and refused if `batch` is null.
bool Instance_UnpackBytes(Batch* batch, void* bytes, std::uint32_t size, Instance** made);

}  // namespace stewardry::cim
