// An instance in words, for people: its class and name space, then a line for each property, with
// nested instances indented below theirs.
#pragma once

#include <string>

#include "cim/instance/instance.h"

namespace cim_ship {

// UTF-8, each line ended. Texts come out in quotes, control characters in them as dots; a null as
// null. Empty for an instance that can't be read.
std::string Describe(const stewardry::cim::Instance* instance);

}  // namespace cim_ship
