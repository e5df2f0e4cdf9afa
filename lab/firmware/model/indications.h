// Indications (DSP1054): instances that report what has happened to the host.
#pragma once

#include <string>
#include <vector>

#include "lab/firmware/model/repository.h"

namespace orrin {

// Returns a CIM_InstCreation, CIM_InstModification or CIM_InstDeletion for each object that differs
// between two states of the repository; its SourceInstance is the object.
std::vector<Object> ChangesBetween(const Repository& before, const Repository& after);

enum class Alert { kHostGone, kHostReady, kHostGoesToS5, kPowerCommand, kBatteryLow };

// Returns a CIM_AlertIndication about the system of that name.
Object MakeAlert(Alert alert, const std::string& systemName);

// Returns the time now as a CIM date-time in its fixed form, in UTC.
std::string FixedTimeNow();

}  // namespace orrin
