// The status report after a resume from S0i3.
#pragma once

namespace stewardry {

// Ends the report of an earlier resume wherever it stands and starts a new one on a thread of its
// own, if the firmware is provisioned. The reader thread.
void ResumeReport();

}  // namespace stewardry
