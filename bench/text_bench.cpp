// Date-times and numbers from and to text, beside those of the C and C++ libraries. The peers read
// and write narrow text, ours 16-bit text. The date-time peers do no calendar arithmetic, since
// ours does none; the floor of a date-time is digit arithmetic on narrow text that is known to be
// valid. An item is one text.
#include <benchmark/benchmark.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "cim/value/datetime.h"
#include "cim/value/text_conversion.h"

namespace {

constexpr const char16_t* kOurFixed = u"20240229123456.123456+060";
constexpr const char16_t* kOurSchema = u"2024-02-29T12:34:56.123456+01:00";
constexpr const char16_t* kOurDuration = u"P3DT4H5M6.789S";
constexpr const char* kFixed = "20240229123456.123456+060";
constexpr const char* kSchema = "2024-02-29T12:34:56.123456+01:00";
constexpr const char* kDuration = "P3DT4H5M6.789S";

// Runs `step` for the time of the benchmark; ends the program if a step returns false.
template <class Step>
void Repeat(benchmark::State& state, Step step) {
  for (auto _ : state) {
    if (!step()) std::abort();
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations());
}

template <class Value>
Value Hidden(Value value) {
  benchmark::DoNotOptimize(value);
  return value;
}

template <int (*Parse)(const char16_t*, stewardry::cim::CimDatetime*)>
void OurParse(benchmark::State& state, const char16_t* text) {
  stewardry::cim::CimDatetime value;
  benchmark::DoNotOptimize(&value);
  Repeat(state, [&] { return Parse(Hidden(text), &value) == 0; });
}

template <void (*Print)(const stewardry::cim::CimDatetime*, char16_t*)>
void OurPrint(benchmark::State& state) {
  stewardry::cim::CimDatetime value;
  if (stewardry::cim::Datetime_Parse(kOurFixed, &value) != 0) std::abort();
  char16_t text[stewardry::cim::kSchemaDatetimeSize];
  benchmark::DoNotOptimize(text);
  Repeat(state, [&] {
    Print(Hidden(&value), text);
    return true;
  });
}

// The fields of a date-time's text, for the peers.
struct Fields {
  std::tm time;
  int microseconds;
  char sign;
  int offset;
};

bool ScanFixed(const char* text, Fields* f) {
  std::tm& t = f->time;
  return std::sscanf(text, "%4d%2d%2d%2d%2d%2d.%6d%c%3d", &t.tm_year, &t.tm_mon, &t.tm_mday,
                     &t.tm_hour, &t.tm_min, &t.tm_sec, &f->microseconds, &f->sign, &f->offset) == 9;
}

bool StrptimeFixed(const char* text, Fields* f) {
  const char* point = ::strptime(text, "%Y%m%d%H%M%S", &f->time);
  if (point == nullptr || *point != '.') return false;
  char* end = nullptr;
  f->microseconds = static_cast<int>(std::strtol(point + 1, &end, 10));
  f->sign = *end;
  f->offset = static_cast<int>(std::strtol(end, &end, 10));
  return *end == 0;
}

bool ScanSchema(const char* text, Fields* f) {
  std::tm& t = f->time;
  int hours = 0;
  int minutes = 0;
  const int count =
      std::sscanf(text, "%4d-%2d-%2dT%2d:%2d:%2d.%6d%c%2d:%2d", &t.tm_year, &t.tm_mon, &t.tm_mday,
                  &t.tm_hour, &t.tm_min, &t.tm_sec, &f->microseconds, &f->sign, &hours, &minutes);
  f->offset = hours * 60 + minutes;
  return count == 10;
}

bool StrptimeSchema(const char* text, Fields* f) {
  const char* point = ::strptime(text, "%Y-%m-%dT%H:%M:%S", &f->time);
  if (point == nullptr || *point != '.') return false;
  char* end = nullptr;
  f->microseconds = static_cast<int>(std::strtol(point + 1, &end, 10));
  std::tm zone{};
  if (::strptime(end, "%z", &zone) == nullptr) return false;
  f->offset = static_cast<int>(zone.tm_gmtoff / 60);
  return true;
}

bool ScanDuration(const char* text, Fields* f) {
  double seconds = 0;
  if (std::sscanf(text, "P%dDT%dH%dM%lfS", &f->time.tm_mday, &f->time.tm_hour, &f->time.tm_min,
                  &seconds) != 4)
    return false;
  f->time.tm_sec = static_cast<int>(seconds);
  return true;
}

template <int Count>
bool Digits(const char* text, int* value) {
  int number = 0;
  for (int i = 0; i < Count; ++i) {
    const unsigned digit = static_cast<unsigned char>(text[i]) - unsigned{'0'};
    if (digit > 9) return false;
    number = number * 10 + static_cast<int>(digit);
  }
  *value = number;
  return true;
}

bool DigitsFixed(const char* text, Fields* f) {
  std::tm& t = f->time;
  f->sign = text[21];
  return Digits<4>(text, &t.tm_year) && Digits<2>(text + 4, &t.tm_mon) &&
         Digits<2>(text + 6, &t.tm_mday) && Digits<2>(text + 8, &t.tm_hour) &&
         Digits<2>(text + 10, &t.tm_min) && Digits<2>(text + 12, &t.tm_sec) && text[14] == '.' &&
         Digits<6>(text + 15, &f->microseconds) && Digits<3>(text + 22, &f->offset);
}

template <bool (*Parse)(const char*, Fields*)>
void PeerParse(benchmark::State& state, const char* text) {
  Fields fields{};
  benchmark::DoNotOptimize(&fields);
  Repeat(state, [&] { return Parse(Hidden(text), &fields); });
}

void PrintfFixed(const Fields& f, char* out, std::size_t size) {
  const std::tm& t = f.time;
  std::snprintf(out, size, "%04d%02d%02d%02d%02d%02d.%06d%c%03d", t.tm_year + 1900, t.tm_mon + 1,
                t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, f.microseconds, f.sign, f.offset);
}

void StrftimeFixed(const Fields& f, char* out, std::size_t size) {
  const std::size_t length = std::strftime(out, size, "%Y%m%d%H%M%S", &f.time);
  std::snprintf(out + length, size - length, ".%06d%c%03d", f.microseconds, f.sign, f.offset);
}

void PrintfSchema(const Fields& f, char* out, std::size_t size) {
  const std::tm& t = f.time;
  std::snprintf(out, size, "%04d-%02d-%02dT%02d:%02d:%02d.%06d%c%02d:%02d", t.tm_year + 1900,
                t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, f.microseconds, f.sign,
                f.offset / 60, f.offset % 60);
}

void StrftimeSchema(const Fields& f, char* out, std::size_t size) {
  const std::size_t length = std::strftime(out, size, "%Y-%m-%dT%H:%M:%S", &f.time);
  std::snprintf(out + length, size - length, ".%06d%c%02d:%02d", f.microseconds, f.sign,
                f.offset / 60, f.offset % 60);
}

template <int Count>
char* PutDigits(char* out, int value) {
  for (int i = Count - 1; i >= 0; --i, value /= 10) out[i] = static_cast<char>('0' + value % 10);
  return out + Count;
}

void DigitsOutFixed(const Fields& f, char* out, std::size_t) {
  const std::tm& t = f.time;
  out = PutDigits<4>(out, t.tm_year + 1900);
  for (const int part : {t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec})
    out = PutDigits<2>(out, part);
  *out++ = '.';
  out = PutDigits<6>(out, f.microseconds);
  *out++ = f.sign;
  *PutDigits<3>(out, f.offset) = 0;
}

template <void (*Print)(const Fields&, char*, std::size_t)>
void PeerPrint(benchmark::State& state) {
  Fields fields{};
  if (!StrptimeFixed(kFixed, &fields)) std::abort();
  char text[64];
  benchmark::DoNotOptimize(text);
  Repeat(state, [&] {
    Print(*Hidden(&fields), text, sizeof text);
    return true;
  });
}

// Numbers. The `end` of the C conversions is checked, as ours does.
template <class Value, int (*Convert)(const char16_t*, Value*)>
void OurNumber(benchmark::State& state, const char16_t* text) {
  Value value{};
  benchmark::DoNotOptimize(&value);
  Repeat(state, [&] { return Convert(Hidden(text), &value) == 0; });
}

template <class Value, auto Convert>
void CNumber(benchmark::State& state, const char* text) {
  Value value{};
  benchmark::DoNotOptimize(&value);
  Repeat(state, [&] {
    char* end = nullptr;
    value = static_cast<Value>(Convert(Hidden(text), &end));
    return *end == 0;
  });
}

template <class Value>
void CxxNumber(benchmark::State& state, const char* text) {
  Value value{};
  benchmark::DoNotOptimize(&value);
  Repeat(state, [&] {
    const char* first = Hidden(text);
    const char* last = first + std::strlen(first);
    return std::from_chars(first, last, value).ptr == last;
  });
}

std::uint64_t Strtoull(const char* text, char** end) { return std::strtoull(text, end, 0); }
std::int64_t Strtol(const char* text, char** end) { return std::strtol(text, end, 0); }
double Strtod(const char* text, char** end) { return std::strtod(text, end); }

using stewardry::cim::Datetime_Parse;
using stewardry::cim::Datetime_ToFixed;
using stewardry::cim::Datetime_ToSchema;

void RegisterDatetimes() {
  using benchmark::RegisterBenchmark;
  RegisterBenchmark("datetime/parse_fixed", OurParse<Datetime_Parse>, kOurFixed);
  RegisterBenchmark("datetime/parse_fixed_sscanf", PeerParse<ScanFixed>, kFixed);
  RegisterBenchmark("datetime/parse_fixed_strptime", PeerParse<StrptimeFixed>, kFixed);
  RegisterBenchmark("datetime/parse_fixed_digits", PeerParse<DigitsFixed>, kFixed);
  RegisterBenchmark("datetime/parse_schema", OurParse<Datetime_Parse>, kOurSchema);
  RegisterBenchmark("datetime/parse_schema_sscanf", PeerParse<ScanSchema>, kSchema);
  RegisterBenchmark("datetime/parse_schema_strptime", PeerParse<StrptimeSchema>, kSchema);
  RegisterBenchmark("datetime/parse_duration", OurParse<Datetime_Parse>, kOurDuration);
  RegisterBenchmark("datetime/parse_duration_sscanf", PeerParse<ScanDuration>, kDuration);
  RegisterBenchmark("datetime/print_fixed", OurPrint<Datetime_ToFixed>);
  RegisterBenchmark("datetime/print_fixed_snprintf", PeerPrint<PrintfFixed>);
  RegisterBenchmark("datetime/print_fixed_strftime", PeerPrint<StrftimeFixed>);
  RegisterBenchmark("datetime/print_fixed_digits", PeerPrint<DigitsOutFixed>);
  RegisterBenchmark("datetime/print_schema", OurPrint<Datetime_ToSchema>);
  RegisterBenchmark("datetime/print_schema_snprintf", PeerPrint<PrintfSchema>);
  RegisterBenchmark("datetime/print_schema_strftime", PeerPrint<StrftimeSchema>);
}

void RegisterReal(const std::string& name, const char16_t* ours, const char* text) {
  using benchmark::RegisterBenchmark;
  RegisterBenchmark(name.c_str(), OurNumber<double, stewardry::cim::Text_ToReal64>, ours);
  RegisterBenchmark((name + "_strtod").c_str(), CNumber<double, Strtod>, text);
  RegisterBenchmark((name + "_from_chars").c_str(), CxxNumber<double>, text);
}

void RegisterNumbers() {
  using benchmark::RegisterBenchmark;
  const char16_t* ourUnsigned = u"18446744073709551615";
  const char* asUnsigned = "18446744073709551615";
  RegisterBenchmark("number/uint64", OurNumber<std::uint64_t, stewardry::cim::Text_ToUint64>,
                    ourUnsigned);
  RegisterBenchmark("number/uint64_strtoull", CNumber<std::uint64_t, Strtoull>, asUnsigned);
  RegisterBenchmark("number/uint64_from_chars", CxxNumber<std::uint64_t>, asUnsigned);
  const char16_t* ourSigned = u"-123456789";
  const char* asSigned = "-123456789";
  RegisterBenchmark("number/sint32", OurNumber<std::int32_t, stewardry::cim::Text_ToSint32>,
                    ourSigned);
  RegisterBenchmark("number/sint32_strtol", CNumber<std::int32_t, Strtol>, asSigned);
  RegisterBenchmark("number/sint32_from_chars", CxxNumber<std::int32_t>, asSigned);
  // Of 15 digits, of 17, and too far from 1 for the short ways of any reader.
  RegisterReal("number/real64", u"3.14159265358979e-7", "3.14159265358979e-7");
  RegisterReal("number/real64_long", u"0.30000000000000004", "0.30000000000000004");
  RegisterReal("number/real64_far", u"2.2250738585072014e-308", "2.2250738585072014e-308");
}

}  // namespace

int main(int argc, char** argv) {
  RegisterDatetimes();
  RegisterNumbers();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
