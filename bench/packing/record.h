// The record that the benchmarks pack and read: 23 properties of all kinds, one of them a nested
// record. A reader adds up all fields; the sum proves that every field was read and that all forms
// are equal.
#pragma once

#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// A text in 16-bit and in 8-bit units.
struct BothText {
  explicit BothText(const char* text) : narrow(text), wide(narrow.begin(), narrow.end()) {}
  std::string narrow;
  std::u16string wide;
};

struct PlainPart {
  BothText name{"controller"}, note{"last seen by the poller."};
  std::uint32_t code = 4711;
  bool enabled = true;
};

struct PlainRecord {
  std::uint8_t slots = 200;
  std::uint16_t port = 50000;
  std::uint32_t address = 3000000000;
  std::uint64_t serial = 0x123456789ABCDEF0;
  std::int16_t trim = -12345;
  std::int32_t drift = -123456789;
  std::int64_t balance = -1234567890123;
  bool present = true, faulty = false;
  float volts = 1.5F;
  double ratio = 3.14159;
  char16_t letter = u'A';
  BothText caption{"eth0 adapter"}, uuid{"0f8fad5b-d9cb-469f-a165-70867728950e"};
  BothText description{"A longer descriptive text of about sixty characters in all.."};
  BothText state{"enabled!"};
  std::uint32_t whenMicroseconds = 123456;
  std::int32_t whenOffset = 60;
  std::vector<std::uint16_t> ports{1, 2, 3, 65535};
  std::vector<std::uint32_t> addresses{1, 2, 3, 4, 5, 6, 7, 4000000000};
  std::array<BothText, 3> owners{BothText("first entry"), BothText("second entry"),
                                 BothText("third entry")};
  std::vector<std::uint8_t> octets = std::vector<std::uint8_t>(16, 0xA5);
  PlainPart part;
};

inline const PlainRecord kRecord;

class Sum {
 public:
  // Adds the integer part of a number.
  template <class Number>
  void Add(Number number) {
    sum_ += static_cast<std::uint64_t>(static_cast<std::int64_t>(number));
  }
  template <class Unit>
  void AddText(const Unit* text, std::size_t length) {
    sum_ +=
        length + static_cast<std::uint64_t>(text[0]) + static_cast<std::uint64_t>(text[length - 1]);
  }
  template <class Elements>
  void AddAll(const Elements& elements, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) sum_ += elements[i];
  }
  std::uint64_t Get() const { return sum_; }

 private:
  std::uint64_t sum_ = 0;
};

inline std::uint64_t SumOf(const PlainRecord& record) {
  Sum sum;
  sum.Add(record.slots), sum.Add(record.port), sum.Add(record.address), sum.Add(record.serial);
  sum.Add(record.trim), sum.Add(record.drift), sum.Add(record.balance), sum.Add(record.present);
  sum.Add(record.faulty), sum.Add(record.volts), sum.Add(record.ratio), sum.Add(record.letter);
  for (const BothText* text :
       {&record.caption, &record.uuid, &record.description, &record.state, &record.owners[0],
        &record.owners[1], &record.owners[2], &record.part.name, &record.part.note})
    sum.AddText(text->wide.data(), text->wide.size());
  sum.Add(record.whenMicroseconds), sum.Add(record.whenOffset);
  sum.AddAll(record.ports, record.ports.size());
  sum.AddAll(record.addresses, record.addresses.size());
  sum.AddText(record.octets.data(), record.octets.size());
  sum.Add(record.part.code), sum.Add(record.part.enabled);
  return sum.Get();
}

// Times `read`, which returns the sum of the fields. Reports `bytes`, the size of the form.
template <class Read>
void TimeReading(benchmark::State& state, std::size_t bytes, Read read) {
  const std::uint64_t expected = SumOf(kRecord);
  for (auto _ : state)
    if (read() != expected) return state.SkipWithError("another record was read");
  state.SetItemsProcessed(state.iterations());
  state.counters["bytes"] = static_cast<double>(bytes);
}

// Times `pack`, which returns the number of bytes.
template <class Pack>
void TimePacking(benchmark::State& state, Pack pack) {
  std::size_t bytes = 0;
  for (auto _ : state) {
    bytes = pack();
    benchmark::ClobberMemory();
  }
  if (bytes == 0) return state.SkipWithError("nothing was packed");
  state.SetItemsProcessed(state.iterations());
  state.counters["bytes"] = static_cast<double>(bytes);
}

}  // namespace bench
