// The status report after a resume from S0i3.
#pragma once

namespace stewardry {

// Lets the report of an earlier resume leave, ends it from outside if it doesn't within 150
// milliseconds, and starts a new one on a thread of its own, if the firmware is provisioned. The
// reader thread.
void ResumeReport();

}  // namespace stewardry
