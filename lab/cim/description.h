// Readable descriptions of instances: class and name space, then a line for each property, with a
// nested instance indented below its property.
#pragma once

#include <string>

#include "cim/instance/instance.h"

namespace cim_ship {

// Returns the description in UTF-8, each line ended. Texts are quoted, with control characters as
// dots; a null value is "null". Returns an empty text for an instance that cannot be read.
std::string Describe(const stewardry::cim::Instance* instance);

}  // namespace cim_ship
