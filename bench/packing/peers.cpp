// The peers of the packed form: protobuf with UTF-8, FlatBuffers with 16-bit texts, and, as the
// lower bound, fixed fields with a table of offsets.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "bench/packing/heap_calls.h"
#include "bench/packing/record.h"
#include "record.pb.h"
#include "record_generated.h"

namespace bench {
namespace {

void Fill(proto::Record* to) {
  const PlainRecord& from = kRecord;
  to->Clear();
  to->set_slots(from.slots), to->set_port(from.port), to->set_address(from.address);
  to->set_serial(from.serial), to->set_trim(from.trim), to->set_drift(from.drift);
  to->set_balance(from.balance), to->set_present(from.present), to->set_faulty(from.faulty);
  to->set_volts(from.volts), to->set_ratio(from.ratio), to->set_letter(from.letter);
  to->set_caption(from.caption.narrow), to->set_uuid(from.uuid.narrow);
  to->set_description(from.description.narrow), to->set_state(from.state.narrow);
  to->set_when_microseconds(from.whenMicroseconds), to->set_when_offset(from.whenOffset);
  to->mutable_ports()->Add(from.ports.begin(), from.ports.end());
  to->mutable_addresses()->Add(from.addresses.begin(), from.addresses.end());
  for (const BothText& owner : from.owners) to->add_owners(owner.narrow);
  to->set_octets(from.octets.data(), from.octets.size());
  proto::Part* part = to->mutable_part();
  part->set_name(from.part.name.narrow), part->set_note(from.part.note.narrow);
  part->set_code(from.part.code), part->set_enabled(from.part.enabled);
}

std::uint64_t SumOf(const proto::Record& record) {
  Sum sum;
  sum.Add(record.slots()), sum.Add(record.port()), sum.Add(record.address());
  sum.Add(record.serial()), sum.Add(record.trim()), sum.Add(record.drift());
  sum.Add(record.balance()), sum.Add(record.present()), sum.Add(record.faulty());
  sum.Add(record.volts()), sum.Add(record.ratio()), sum.Add(record.letter());
  const proto::Part& part = record.part();
  for (const std::string* text : {&record.caption(), &record.uuid(), &record.description(),
                                  &record.state(), &part.name(), &part.note()})
    sum.AddText(text->data(), text->size());
  for (const std::string& owner : record.owners()) sum.AddText(owner.data(), owner.size());
  sum.Add(record.when_microseconds()), sum.Add(record.when_offset());
  for (const std::uint32_t port : record.ports()) sum.Add(port);
  for (const std::uint32_t address : record.addresses()) sum.Add(address);
  sum.AddText(reinterpret_cast<const std::uint8_t*>(record.octets().data()),
              record.octets().size());
  sum.Add(part.code()), sum.Add(part.enabled());
  return sum.Get();
}

std::size_t Serialize(const proto::Record& record, std::uint8_t* out) {
  const std::size_t size = record.ByteSizeLong();
  record.SerializeWithCachedSizesToArray(out);
  return size;
}

void PackProtobuf(benchmark::State& state) {
  proto::Record record;
  std::uint8_t out[2048];
  TimePacking(state, [&] {
    Fill(&record);
    return Serialize(record, out);
  });
}

void PackFilledProtobuf(benchmark::State& state) {
  proto::Record record;
  std::uint8_t out[2048];
  Fill(&record);
  TimePacking(state, [&] { return Serialize(record, out); });
}

void ReadProtobuf(benchmark::State& state, bool isReused) {
  proto::Record record;
  Fill(&record);
  const std::string bytes = record.SerializeAsString();
  const int size = static_cast<int>(bytes.size());
  TimeReading(state, bytes.size(), [&] {
    if (isReused) return record.ParseFromArray(bytes.data(), size) ? SumOf(record) : 0;
    proto::Record fresh;
    return fresh.ParseFromArray(bytes.data(), size) ? SumOf(fresh) : 0;
  });
}

// The same request, from a filled record: serialised, copied once, parsed and read.
void ShipProtobuf(benchmark::State& state) {
  proto::Request request;
  request.set_name("root/cimv2");
  Fill(request.mutable_record());
  const CountsHeapCalls counts(&state);
  TimeReading(state, 0, [&] {
    const std::string sent = request.SerializeAsString(), arrived(sent.data(), sent.size());
    proto::Request made;
    return made.ParseFromString(arrived) ? SumOf(made.record()) : 0;
  });
}

auto Units(flatbuffers::FlatBufferBuilder& builder, const BothText& text) {
  return builder.CreateVector(reinterpret_cast<const std::uint16_t*>(text.wide.data()),
                              text.wide.size());
}

std::size_t Build(flatbuffers::FlatBufferBuilder& builder) {
  const PlainRecord& from = kRecord;
  builder.Clear();
  const auto caption = Units(builder, from.caption), uuid = Units(builder, from.uuid);
  const auto description = Units(builder, from.description), state = Units(builder, from.state);
  const auto ports = builder.CreateVector(from.ports);
  const auto addresses = builder.CreateVector(from.addresses);
  flatbuffers::Offset<flat::Text> each[3];
  for (std::size_t i = 0; i < 3; ++i)
    each[i] = flat::CreateText(builder, Units(builder, from.owners[i]));
  const auto owners = builder.CreateVector(each, 3);
  const auto octets = builder.CreateVector(from.octets);
  const auto name = Units(builder, from.part.name), note = Units(builder, from.part.note);
  const auto part = flat::CreatePart(builder, name, from.part.code, from.part.enabled, note);
  builder.Finish(flat::CreateRecord(builder, from.slots, from.port, from.address, from.serial,
                                    from.trim, from.drift, from.balance, from.present, from.faulty,
                                    from.volts, from.ratio, from.letter, caption, uuid, description,
                                    state, from.whenMicroseconds, from.whenOffset, ports, addresses,
                                    owners, octets, part));
  return builder.GetSize();
}

std::uint64_t SumOf(const flat::Record& record) {
  Sum sum;
  sum.Add(record.slots()), sum.Add(record.port()), sum.Add(record.address());
  sum.Add(record.serial()), sum.Add(record.trim()), sum.Add(record.drift());
  sum.Add(record.balance()), sum.Add(record.present()), sum.Add(record.faulty());
  sum.Add(record.volts()), sum.Add(record.ratio()), sum.Add(record.letter());
  const flat::Part& part = *record.part();
  for (const auto* text : {record.caption(), record.uuid(), record.description(), record.state(),
                           part.name(), part.note()})
    sum.AddText(text->data(), text->size());
  for (const flat::Text* owner : *record.owners())
    sum.AddText(owner->units()->data(), owner->units()->size());
  sum.Add(record.when_microseconds()), sum.Add(record.when_offset());
  sum.AddAll(record.ports()->data(), record.ports()->size());
  sum.AddAll(record.addresses()->data(), record.addresses()->size());
  sum.AddText(record.octets()->data(), record.octets()->size());
  sum.Add(part.code()), sum.Add(part.enabled());
  return sum.Get();
}

void PackFlatBuffers(benchmark::State& state) {
  flatbuffers::FlatBufferBuilder builder(2048);
  TimePacking(state, [&] { return Build(builder); });
}

void WalkFlatBuffers(benchmark::State& state) {
  flatbuffers::FlatBufferBuilder builder(2048);
  const std::size_t size = Build(builder);
  const std::uint8_t* bytes = builder.GetBufferPointer();
  TimeReading(state, size, [&]() -> std::uint64_t {
    benchmark::DoNotOptimize(bytes);
    flatbuffers::Verifier verifier(bytes, size);
    return flat::VerifyRecordBuffer(verifier) ? SumOf(*flat::GetRecord(bytes)) : 0;
  });
}

// The lower bound: fields of fixed size and the offsets of the others, at multiples of 8.
struct Floor {
  std::uint64_t serial;
  std::int64_t balance;
  double ratio;
  std::uint32_t address, code, whenMicroseconds;
  std::int32_t drift, whenOffset;
  float volts;
  std::uint16_t port;
  char16_t letter;
  std::int16_t trim;
  std::uint8_t slots, present, faulty, enabled;
  std::array<std::uint32_t, 12> offsets, counts;
};
// Units of each part that has an offset: nine texts, ports, addresses, octets.
constexpr std::array<std::uint32_t, 12> kWidths = {2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 4, 1};

std::size_t PackFloorInto(std::uint8_t* out) {
  const PlainRecord& from = kRecord;
  auto* to = reinterpret_cast<Floor*>(out);
  to->serial = from.serial, to->balance = from.balance, to->ratio = from.ratio;
  to->address = from.address, to->code = from.part.code, to->drift = from.drift;
  to->whenMicroseconds = from.whenMicroseconds, to->whenOffset = from.whenOffset;
  to->volts = from.volts, to->port = from.port, to->letter = from.letter, to->trim = from.trim;
  to->slots = from.slots, to->present = from.present, to->faulty = from.faulty;
  to->enabled = from.part.enabled;
  std::size_t at = (sizeof(Floor) + 7) & ~std::size_t{7}, index = 0;
  const auto put = [&](const void* data, std::size_t count) {
    const std::size_t bytes = count * kWidths[index];
    to->offsets[index] = static_cast<std::uint32_t>(at);
    to->counts[index++] = static_cast<std::uint32_t>(count);
    std::memcpy(out + at, data, bytes);
    at = (at + bytes + 7) & ~std::size_t{7};
  };
  for (const BothText* text :
       {&from.caption, &from.uuid, &from.description, &from.state, &from.owners[0], &from.owners[1],
        &from.owners[2], &from.part.name, &from.part.note})
    put(text->wide.data(), text->wide.size());
  put(from.ports.data(), from.ports.size());
  put(from.addresses.data(), from.addresses.size());
  put(from.octets.data(), from.octets.size());
  return at;
}

std::uint64_t SumOfFloor(const std::uint8_t* bytes, std::size_t size) {
  const auto& from = *reinterpret_cast<const Floor*>(bytes);
  Sum sum;
  sum.Add(from.serial), sum.Add(from.balance), sum.Add(from.ratio), sum.Add(from.address);
  sum.Add(from.code), sum.Add(from.drift), sum.Add(from.whenMicroseconds);
  sum.Add(from.whenOffset), sum.Add(from.volts), sum.Add(from.port), sum.Add(from.letter);
  sum.Add(from.trim), sum.Add(from.slots), sum.Add(from.present), sum.Add(from.faulty);
  sum.Add(from.enabled);
  for (std::size_t i = 0; i < kWidths.size(); ++i) {
    const std::uint64_t end =
        from.offsets[i] + static_cast<std::uint64_t>(from.counts[i]) * kWidths[i];
    if (end > size || from.offsets[i] % 8 != 0) return 0;
    const std::uint8_t* part = bytes + from.offsets[i];
    if (i < 9)
      sum.AddText(reinterpret_cast<const char16_t*>(part), from.counts[i]);
    else if (i == 9)
      sum.AddAll(reinterpret_cast<const std::uint16_t*>(part), from.counts[i]);
    else if (i == 10)
      sum.AddAll(reinterpret_cast<const std::uint32_t*>(part), from.counts[i]);
    else
      sum.AddText(part, from.counts[i]);
  }
  return sum.Get();
}

void PackFloor(benchmark::State& state) {
  alignas(8) std::uint8_t out[2048];
  TimePacking(state, [&] { return PackFloorInto(out); });
}

void WalkFloor(benchmark::State& state) {
  alignas(8) std::uint8_t bytes[2048];
  const std::size_t size = PackFloorInto(bytes);
  TimeReading(state, size, [&] {
    benchmark::ClobberMemory();
    return SumOfFloor(bytes, size);
  });
}

BENCHMARK(ShipProtobuf)->Name("message/protobuf");
BENCHMARK(PackProtobuf)->Name("pack/protobuf");
BENCHMARK(PackFilledProtobuf)->Name("pack/protobuf_filled");
BENCHMARK(PackFlatBuffers)->Name("pack/flatbuffers");
BENCHMARK(PackFloor)->Name("pack/floor");
BENCHMARK_CAPTURE(ReadProtobuf, fresh, false)->Name("unpack/protobuf");
BENCHMARK_CAPTURE(ReadProtobuf, reused, true)->Name("unpack/protobuf_reused");
BENCHMARK(WalkFlatBuffers)->Name("walk/flatbuffers");
BENCHMARK(WalkFloor)->Name("walk/floor");

}  // namespace
}  // namespace bench
