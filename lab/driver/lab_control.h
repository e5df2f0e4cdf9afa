// The names of the test driver's lab device and the control codes that the setup program sends to
// it. Shared by kernel and user mode; include after the platform's headers.
#pragma once

// The lab device's names in kernel mode and in user mode.
#define TAVRIN_LAB_DEVICE L"\\Device\\TavrinMailboxLab"
#define TAVRIN_LAB_LINK L"\\DosDevices\\TavrinMailboxLab"
#define TAVRIN_LAB_PATH "\\\\.\\TavrinMailboxLab"

// FILE_DEVICE_UNKNOWN, functions of the vendors' range (from 0x800), buffered.
// Input: one TavrinMisbehaviour. Output: none.
#define IOCTL_TAVRIN_MISBEHAVE \
  CTL_CODE(FILE_DEVICE_UNKNOWN, 0x801, METHOD_BUFFERED, FILE_WRITE_ACCESS)
// Input: none. Output: one TavrinStatus.
#define IOCTL_TAVRIN_STATUS CTL_CODE(FILE_DEVICE_UNKNOWN, 0x802, METHOD_BUFFERED, FILE_READ_ACCESS)

enum TavrinMode : unsigned long {
  kTavrinBehave = 0,  // every request pends until the firmware answers
  kTavrinAtOnce = 1,  // every request succeeds at once, without output
  kTavrinFail = 2,    // every request fails at once with `error`
  kTavrinGone = 3,    // no interface, and everything in flight fails, as without the device
};

struct TavrinMisbehaviour {
  unsigned long mode;
  unsigned long error;  // a Windows error number; for kTavrinFail
};

struct TavrinStatus {
  unsigned long mode;
  unsigned long handles;
  unsigned long reads;
  unsigned long requests;
  unsigned long hasBridge;
};
