// The methods that consoles may invoke.
#pragma once

#include <cstdint>
#include <optional>

#include "lab/firmware/model/objects.h"

namespace orrin {

// Runs a method. `in` has its parameters, `out` gets the return value and the outgoing parameters;
// both are instances of the method's parameters. Returns the command that the host gets before the
// answer leaves, or nothing. Throws Fault for a method that the firmware does not offer and for a
// required parameter that is missing.
std::optional<std::uint8_t> RunMethod(const cim::Instance* target, const cim::MethodDef& method,
                                      const cim::Instance* in, cim::Instance* out);

// Returns the firmware command for a PowerState of CIM_PowerManagementService, or nothing for a
// state that this firmware does not offer.
std::optional<std::uint8_t> CommandForPowerState(std::uint32_t powerState);

}  // namespace orrin
