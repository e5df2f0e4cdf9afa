// Replaces the values of an unpacked instance in place: the step of Instance_UnpackInto that spares
// the building. It never decides that bytes are wrong: what it does not expect is unpacked afresh.
#pragma once

#include "cim/packing/pack_buffer.h"

namespace stewardry::cim {

struct Instance;

// Reads one packed instance into `instance`, which Instance_UnpackInto made, if both have the same
// class, name space and properties. Otherwise returns false and leaves the position and the bytes
// unchanged; the instance's values are then undefined, and it can only be released. Returns false
// for a null instance and for one with more than one reference, which it leaves alone, and for
// bytes not aligned to 8.
bool Instance_Refill(Instance* instance, PackBuf* reader);

}  // namespace stewardry::cim
