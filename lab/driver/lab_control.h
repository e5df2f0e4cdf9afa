// What a tester asks of the test driver: the names of its lab device and the control codes that the
// setup program sends to it. Shared by kernel and user side; include after the platform's headers.
#pragma once

// The kernel's and the user's name of the lab device.
#define TAVRIN_LAB_DEVICE L"\\Device\\TavrinMailboxLab"
#define TAVRIN_LAB_LINK L"\\DosDevices\\TavrinMailboxLab"
#define TAVRIN_LAB_PATH "\\\\.\\TavrinMailboxLab"

// FILE_DEVICE_UNKNOWN, functions of the range for everybody's own use (from 0x800), buffered.
// Input: one TavrinMisbehaviour. Output: none.
#define IOCTL_TAVRIN_MISBEHAVE \
  CTL_CODE(FILE_DEVICE_UNKNOWN, 0x801, METHOD_BUFFERED, FILE_WRITE_ACCESS)
// Input: none. Output: one TavrinStatus.
#define IOCTL_TAVRIN_STATUS CTL_CODE(FILE_DEVICE_UNKNOWN, 0x802, METHOD_BUFFERED, FILE_READ_ACCESS)

enum TavrinMode : unsigned long {
  kTavrinBehave = 0,  // every request pends until the firmware answers
  kTavrinAtOnce = 1,  // every request succeeds at once, without output
  kTavrinFail = 2,    // every request fails at once with `error`
  kTavrinGone = 3,    // the device has left: its interface is off, everything in flight fails
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
