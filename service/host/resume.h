// The status report after a resume from S0i3.
#pragma once

namespace stewardry {

// If the firmware is provisioned, asks the report of an earlier resume to end, ends its thread from
// outside after 150 milliseconds, and starts a new report on a thread of its own. The reader
// thread.
void ResumeReport();

}  // namespace stewardry
