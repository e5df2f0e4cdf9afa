// Operations of the service and of the object library that are counted beside the packing ones.
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "cim/value/datetime.h"
#include "service/diagnostics/service_log.h"
#include "service/mailbox/dispatcher.h"

namespace {

using namespace stewardry;

// The lab's drive on Linux, the current folder on Windows.
#ifdef _WIN32
constexpr const char* kLogPath = "counts.log";
#else
constexpr const char* kLogPath = "C:\\counts.log";
#endif
constexpr std::uint32_t kLimit = 10 << 20;  // the service's own

template <int (*Parse)(const char16_t*, cim::CimDatetime*)>
void ParseDatetime(benchmark::State& state, const char16_t* text) {
  cim::CimDatetime value;
  for (auto _ : state) {
    benchmark::DoNotOptimize(text);
    if (Parse(text, &value) != 0) state.SkipWithError("no date-time");
    benchmark::ClobberMemory();
  }
}
void ParseFixed(benchmark::State& state) {
  ParseDatetime<cim::Datetime_Parse>(state, u"20240229123456.123456+060");
}

void TakePayload(const std::uint8_t* payload, std::uint32_t length) {
  benchmark::DoNotOptimize(payload);
  benchmark::DoNotOptimize(length);
}
// The command of a KVM frame stands behind that of a DASH frame, as in the service's table.
constexpr FirmwareCommand kCommands[] = {
    {ORRIN_TAVRIN_CMD_DASH_DATA, "DASH", nullptr, true, TakePayload},
    {ORRIN_TAVRIN_CMD_KVM_DATA, "KVM", nullptr, true, TakePayload},
};

void DispatchFrame(benchmark::State& state) {
  SetFirmwareCommands(kCommands);
  std::uint8_t frame[66] = {};
  frame[64] = ORRIN_TAVRIN_CMD_KVM_DATA;
  for (auto _ : state) Processread(sizeof frame, frame);
}

void WriteLogLine(benchmark::State& state) {
  if (!ServiceLog_Start(kLogPath, kLimit)) state.SkipWithError("no log");
  for (auto _ : state) LogInfo("Port %d moved %d bytes to the mailbox", 664, 131072);
  ServiceLog_Close();
}

BENCHMARK(ParseFixed)->Name("datetime/parse");
BENCHMARK(DispatchFrame)->Name("mailbox/dispatch");
BENCHMARK(WriteLogLine)->Name("log/line");

}  // namespace
