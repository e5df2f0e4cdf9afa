// Fuzz target: a capture of the firmware's log ring with any indexes and lines. The ring is a heap
// block of its own, so that a sanitizer reports a read beyond it; the file is in a lab folder of
// the process's own.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "service/standby/firmware_log.h"
#include "service/standby/standby_state.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  static std::string lab = "/tmp/stewardry-log-ring-XXXXXX";
  if (mkdtemp(lab.data()) == nullptr) std::abort();
  setenv("STEWARDRY_LAB", lab.c_str(), 1);
  std::filesystem::create_directories(lab + "/ProgramData/Corvane/Stewardry");
  return std::atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(lab, ignored);
  });
}

// The input: both indexes, whether it is the first capture, then the lines, repeated over the ring.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace stewardry;
  constexpr std::size_t kHead = 9;
  if (size <= kHead) return 0;
  const auto ring = std::make_unique<LogRing>();
  std::memcpy(ring.get(), data, 8);
  auto* bytes = reinterpret_cast<std::uint8_t*>(ring->entries);
  for (std::size_t at = 0; at < sizeof ring->entries; at += size - kHead)
    std::memcpy(bytes + at, data + kHead, std::min(size - kHead, sizeof ring->entries - at));
  const LogRing before = *ring;

  gStandby->gLogBufferAddress = reinterpret_cast<std::uint64_t>(ring.get());
  gStandby->gLogFirstCapture = data[8] & 1U;
  gStandby->gLogFileCreated = 0;
  CaptureLogBuffer();

  // The service writes nothing but the read index, and that stays valid.
  if (std::memcmp(ring->entries, before.entries, sizeof before.entries) != 0) std::abort();
  if (ring->writeIndex != before.writeIndex) std::abort();
  if (ring->readIndex != before.readIndex && ring->readIndex > LogRing::kWriteIndexMax)
    std::abort();
  return 0;
}
