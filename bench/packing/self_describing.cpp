// The peers that carry their names as ours does: FlexBuffers, MessagePack and CBOR, each with a map
// of 23 names that holds another of 4. Texts are UTF-8: the rows "from_utf16" convert them, as the
// caller of ours would have to; the others get them for free.
#include <benchmark/benchmark.h>
#include <cbor.h>
#include <flatbuffers/flexbuffers.h>

#include <cstring>
#include <msgpack.hpp>
#include <string>
#include <string_view>

#include "bench/packing/record.h"

namespace bench {
namespace {

// Converts UTF-16 to UTF-8 as far as the record needs it: units below 0x800.
class Utf8 {
 public:
  std::string_view Of(const std::u16string& text) {
    char* to = bytes_;
    for (const char16_t unit : text) {
      if (unit < 0x80) {
        *to++ = static_cast<char>(unit);
      } else {
        *to++ = static_cast<char>(0xC0 | unit >> 6);
        *to++ = static_cast<char>(0x80 | (unit & 0x3F));
      }
    }
    return {bytes_, static_cast<std::size_t>(to - bytes_)};
  }

 private:
  char bytes_[256];
};

std::string_view TextOf(const BothText& text, bool isWide, Utf8* utf8) {
  return isWide ? utf8->Of(text.wide) : std::string_view(text.narrow);
}

// Writes the record through a peer's writer, which has one function for each kind.
template <class Writer>
void Write(Writer& to, bool isWide) {
  const PlainRecord& from = kRecord;
  Utf8 utf8;
  const auto text = [&](const char* key, const BothText& value) {
    to.Key(key), to.Text(TextOf(value, isWide, &utf8));
  };
  const auto number = [&](const char* key, auto value) { to.Key(key), to.Number(value); };
  const auto outer = to.StartMap(23);
  number("Slots", from.slots), number("Port", from.port), number("Address", from.address);
  number("Serial", from.serial), number("Trim", from.trim), number("Drift", from.drift);
  number("Balance", from.balance), number("Present", from.present), number("Faulty", from.faulty);
  number("Volts", from.volts), number("Ratio", from.ratio);
  number("Letter", static_cast<std::uint16_t>(from.letter));
  text("Caption", from.caption), text("Uuid", from.uuid);
  text("Description", from.description), text("State", from.state);
  number("When", from.whenMicroseconds), number("WhenOffset", from.whenOffset);
  to.Key("Ports"), to.Array(from.ports);
  to.Key("Addresses"), to.Array(from.addresses);
  to.Key("Owners");
  const auto owners = to.StartArray(from.owners.size());
  for (const BothText& owner : from.owners) to.Text(TextOf(owner, isWide, &utf8));
  to.EndArray(owners);
  to.Key("Octets"), to.Bytes(from.octets.data(), from.octets.size());
  to.Key("Part");
  const auto inner = to.StartMap(4);
  text("Name", from.part.name), number("Code", from.part.code);
  number("Enabled", from.part.enabled), text("Note", from.part.note);
  to.EndMap(inner);
  to.EndMap(outer);
}

constexpr const char* kNames[] = {
    "Slots",  "Port",       "Address", "Serial",    "Trim",    "Drift",  "Balance",     "Present",
    "Faulty", "Volts",      "Ratio",   "Letter",    "Caption", "Uuid",   "Description", "State",
    "When",   "WhenOffset", "Ports",   "Addresses", "Owners",  "Octets", "Part"};
constexpr const char* kPartNames[] = {"Name", "Code", "Enabled", "Note"};

struct FlexWriter {
  flexbuffers::Builder builder{2048};
  void Clear() { builder.Clear(); }
  std::size_t Finish() {
    builder.Finish();
    return builder.GetSize();
  }
  std::size_t StartMap(std::size_t) { return builder.StartMap(); }
  void EndMap(std::size_t start) { builder.EndMap(start); }
  std::size_t StartArray(std::size_t) { return builder.StartVector(); }
  void EndArray(std::size_t start) { builder.EndVector(start, false, false); }
  void Key(const char* key) { builder.Key(key); }
  void Text(std::string_view text) { builder.String(text.data(), text.size()); }
  void Bytes(const std::uint8_t* data, std::size_t size) { builder.Blob(data, size); }
  template <class Element>
  void Array(const std::vector<Element>& elements) {
    builder.Vector(elements.data(), elements.size());
  }
  void Number(bool value) { builder.Bool(value); }
  void Number(float value) { builder.Float(value); }
  void Number(double value) { builder.Double(value); }
  template <class Integer>
  void Number(Integer value) {
    if constexpr (std::is_signed_v<Integer>)
      builder.Int(value);
    else
      builder.UInt(value);
  }
};

struct MessagePackWriter {
  msgpack::sbuffer buffer{2048};
  msgpack::packer<msgpack::sbuffer> packer{buffer};
  void Clear() { buffer.clear(); }
  std::size_t Finish() const { return buffer.size(); }
  int StartMap(std::uint32_t size) { return packer.pack_map(size), 0; }
  void EndMap(int) {}
  int StartArray(std::size_t size) {
    return packer.pack_array(static_cast<std::uint32_t>(size)), 0;
  }
  void EndArray(int) {}
  void Key(std::string_view key) { Text(key); }
  void Text(std::string_view text) {
    packer.pack_str(static_cast<std::uint32_t>(text.size()));
    packer.pack_str_body(text.data(), static_cast<std::uint32_t>(text.size()));
  }
  void Bytes(const std::uint8_t* data, std::size_t size) {
    packer.pack_bin(static_cast<std::uint32_t>(size));
    packer.pack_bin_body(reinterpret_cast<const char*>(data), static_cast<std::uint32_t>(size));
  }
  template <class Element>
  void Array(const std::vector<Element>& elements) {
    StartArray(elements.size());
    for (const Element element : elements) packer.pack(element);
  }
  template <class Plain>
  void Number(Plain value) {
    packer.pack(value);
  }
};

struct CborWriter {
  std::uint8_t bytes[2048];
  std::size_t size = 0;
  std::uint8_t* At() { return bytes + size; }
  std::size_t Left() const { return sizeof bytes - size; }
  void Clear() { size = 0; }
  std::size_t Finish() const { return size; }
  int StartMap(std::size_t count) {
    size += cbor_encode_map_start(count, At(), Left());
    return 0;
  }
  void EndMap(int) {}
  int StartArray(std::size_t count) {
    size += cbor_encode_array_start(count, At(), Left());
    return 0;
  }
  void EndArray(int) {}
  void Copy(const void* data, std::size_t length) {
    if (length > Left()) return;
    std::memcpy(At(), data, length);
    size += length;
  }
  void Key(std::string_view key) { Text(key); }
  void Text(std::string_view text) {
    size += cbor_encode_string_start(text.size(), At(), Left());
    Copy(text.data(), text.size());
  }
  void Bytes(const std::uint8_t* data, std::size_t length) {
    size += cbor_encode_bytestring_start(length, At(), Left());
    Copy(data, length);
  }
  template <class Element>
  void Array(const std::vector<Element>& elements) {
    StartArray(elements.size());
    for (const Element element : elements) Number(element);
  }
  void Number(bool value) { size += cbor_encode_bool(value, At(), Left()); }
  void Number(float value) { size += cbor_encode_single(value, At(), Left()); }
  void Number(double value) { size += cbor_encode_double(value, At(), Left()); }
  template <class Integer>
  void Number(Integer value) {
    if (value < 0)
      size += cbor_encode_negint(static_cast<std::uint64_t>(-1 - static_cast<std::int64_t>(value)),
                                 At(), Left());
    else
      size += cbor_encode_uint(static_cast<std::uint64_t>(value), At(), Left());
  }
};

template <class Writer>
void PackInto(benchmark::State& state, bool isWide) {
  Writer writer;
  TimePacking(state, [&] {
    writer.Clear();
    Write(writer, isWide);
    return writer.Finish();
  });
}

void PackFlex(benchmark::State& state, bool isWide) { PackInto<FlexWriter>(state, isWide); }
void PackMessagePack(benchmark::State& state, bool isWide) {
  PackInto<MessagePackWriter>(state, isWide);
}
void PackCbor(benchmark::State& state, bool isWide) { PackInto<CborWriter>(state, isWide); }

void AddFlex(Sum* sum, flexbuffers::Reference value);

template <class Vector>
void AddFlexElements(Sum* sum, const Vector& elements) {
  for (std::size_t i = 0; i < elements.size(); ++i) AddFlex(sum, elements[i]);
}

void AddFlex(Sum* sum, flexbuffers::Reference value) {
  if (value.IsString()) return sum->AddText(value.AsString().c_str(), value.AsString().size());
  if (value.IsBlob()) return sum->AddText(value.AsBlob().data(), value.AsBlob().size());
  if (value.IsMap()) return AddFlexElements(sum, value.AsMap().Values());
  if (value.IsTypedVector()) return AddFlexElements(sum, value.AsTypedVector());
  if (value.IsAnyVector()) return AddFlexElements(sum, value.AsVector());
  if (value.IsFloat()) return sum->Add(value.AsDouble());
  if (value.IsBool()) return sum->Add(value.AsBool());
  if (value.IsUInt()) return sum->Add(value.AsUInt64());
  sum->Add(value.AsInt64());
}

// Verified, as the other readers check what they read. `isByName` looks each field up.
void ReadFlex(benchmark::State& state, bool isByName) {
  FlexWriter writer;
  Write(writer, false);
  const std::size_t size = writer.Finish();
  const std::uint8_t* bytes = writer.builder.GetBuffer().data();
  std::vector<std::uint8_t> reuse;
  TimeReading(state, size, [&] {
    benchmark::DoNotOptimize(bytes);
    Sum sum;
    if (!flexbuffers::VerifyBuffer(bytes, size, &reuse)) return sum.Get();
    const auto root = flexbuffers::GetRoot(bytes, size);
    if (!isByName) {
      AddFlex(&sum, root);
      return sum.Get();
    }
    const flexbuffers::Map map = root.AsMap(), part = map["Part"].AsMap();
    for (std::size_t i = 0; i + 1 < std::size(kNames); ++i) AddFlex(&sum, map[kNames[i]]);
    for (const char* name : kPartNames) AddFlex(&sum, part[name]);
    return sum.Get();
  });
}

void AddObject(Sum* sum, const msgpack::object& object);

// Adds the fields by their names, expected in the order of writing.
template <std::size_t kCount>
void AddFields(Sum* sum, const msgpack::object_map& map, const char* const (&names)[kCount]) {
  for (std::uint32_t i = 0; i < map.size; ++i) {
    const auto key = map.ptr[i].key.as<std::string_view>();
    if (i < kCount && key == names[i]) AddObject(sum, map.ptr[i].val);
  }
}

void AddObject(Sum* sum, const msgpack::object& object) {
  const auto& via = object.via;
  switch (object.type) {
    case msgpack::type::STR:
      return sum->AddText(via.str.ptr, via.str.size);
    case msgpack::type::BIN:
      return sum->AddText(reinterpret_cast<const std::uint8_t*>(via.bin.ptr), via.bin.size);
    case msgpack::type::MAP:
      return AddFields(sum, via.map, kPartNames);
    case msgpack::type::ARRAY:
      for (std::uint32_t i = 0; i < via.array.size; ++i) AddObject(sum, via.array.ptr[i]);
      return;
    case msgpack::type::FLOAT32:
    case msgpack::type::FLOAT64:
      return sum->Add(via.f64);
    case msgpack::type::BOOLEAN:
      return sum->Add(via.boolean);
    default:
      return sum->Add(via.u64);  // or the bits of a negative number
  }
}

void UnpackMessagePack(benchmark::State& state) {
  MessagePackWriter writer;
  Write(writer, false);
  const auto refer = [](msgpack::type::object_type, std::size_t, void*) { return true; };
  TimeReading(state, writer.buffer.size(), [&] {
    const msgpack::object_handle made =
        msgpack::unpack(writer.buffer.data(), writer.buffer.size(), refer);
    Sum sum;
    AddFields(&sum, made->via.map, kNames);
    return sum.Get();
  });
}

struct SumVisitor : msgpack::null_visitor {
  Sum sum;
  bool isKey = false;
  bool start_map_key() { return isKey = true; }
  bool end_map_key() { return isKey = false, true; }
  bool visit_boolean(bool value) { return sum.Add(value), true; }
  bool visit_positive_integer(std::uint64_t value) { return sum.Add(value), true; }
  bool visit_negative_integer(std::int64_t value) { return sum.Add(value), true; }
  bool visit_float32(float value) { return sum.Add(value), true; }
  bool visit_float64(double value) { return sum.Add(value), true; }
  bool visit_str(const char* text, std::uint32_t size) {
    if (!isKey) sum.AddText(text, size);
    return true;
  }
  bool visit_bin(const char* data, std::uint32_t size) {
    return sum.AddText(reinterpret_cast<const std::uint8_t*>(data), size), true;
  }
};

void WalkMessagePack(benchmark::State& state) {
  MessagePackWriter writer;
  Write(writer, false);
  TimeReading(state, writer.buffer.size(), [&] {
    benchmark::ClobberMemory();
    SumVisitor visitor;
    return msgpack::parse(writer.buffer.data(), writer.buffer.size(), visitor) ? visitor.sum.Get()
                                                                               : 0;
  });
}

void AddItem(Sum* sum, const cbor_item_t* item);

template <std::size_t kCount>
void AddItems(Sum* sum, const cbor_item_t* map, const char* const (&names)[kCount]) {
  const cbor_pair* pairs = cbor_map_handle(map);
  for (std::size_t i = 0; i < cbor_map_size(map); ++i) {
    const std::string_view key(reinterpret_cast<const char*>(cbor_string_handle(pairs[i].key)),
                               cbor_string_length(pairs[i].key));
    if (i < kCount && key == names[i]) AddItem(sum, pairs[i].value);
  }
}

void AddItem(Sum* sum, const cbor_item_t* item) {
  switch (cbor_typeof(item)) {
    case CBOR_TYPE_UINT:
      return sum->Add(cbor_get_int(item));
    case CBOR_TYPE_NEGINT:
      return sum->Add(-1 - static_cast<std::int64_t>(cbor_get_int(item)));
    case CBOR_TYPE_STRING:
      return sum->AddText(cbor_string_handle(item), cbor_string_length(item));
    case CBOR_TYPE_BYTESTRING:
      return sum->AddText(cbor_bytestring_handle(item), cbor_bytestring_length(item));
    case CBOR_TYPE_MAP:
      return AddItems(sum, item, kPartNames);
    case CBOR_TYPE_ARRAY:
      for (std::size_t i = 0; i < cbor_array_size(item); ++i)
        AddItem(sum, cbor_array_handle(item)[i]);
      return;
    default:
      if (cbor_float_ctrl_is_ctrl(item)) return sum->Add(cbor_get_bool(item));
      return sum->Add(cbor_float_get_float(item));
  }
}

void UnpackCbor(benchmark::State& state) {
  CborWriter writer;
  Write(writer, false);
  TimeReading(state, writer.size, [&] {
    cbor_load_result result;
    cbor_item_t* made = cbor_load(writer.bytes, writer.size, &result);
    Sum sum;
    if (made == nullptr) return sum.Get();
    AddItems(&sum, made, kNames);
    cbor_decref(&made);
    return sum.Get();
  });
}

// What the callbacks of a walk add to. Every second text of the maps is a key, so the reader counts
// what is left of each map and array.
struct CborWalk {
  Sum sum;
  std::uint64_t left[3] = {1, 0, 0};  // items
  bool isMap[3] = {false, false, false};
  int depth = 0;
  // Counts an item and returns true unless it is a key.
  bool Next() {
    while (depth > 0 && left[depth] == 0) --depth;
    const bool isKey = isMap[depth] && left[depth] % 2 == 0;
    --left[depth];
    return !isKey;
  }
  void Open(std::uint64_t items, bool map) {
    (void)Next();
    if (depth == 2) return;
    ++depth;
    left[depth] = items;
    isMap[depth] = map;
  }
  template <class Number>
  static void Add(void* walk, Number number) {
    auto* self = static_cast<CborWalk*>(walk);
    if (self->Next()) self->sum.Add(number);
  }
  template <class Number>
  static void AddNegative(void* walk, Number number) {
    Add(walk, -1 - static_cast<std::int64_t>(number));
  }
  static void AddText(void* walk, cbor_data text, std::size_t size) {
    auto* self = static_cast<CborWalk*>(walk);
    if (self->Next()) self->sum.AddText(text, size);
  }
};

cbor_callbacks WalkCallbacks() {
  cbor_callbacks calls = cbor_empty_callbacks;
  calls.uint8 = CborWalk::Add<std::uint8_t>, calls.uint16 = CborWalk::Add<std::uint16_t>;
  calls.uint32 = CborWalk::Add<std::uint32_t>, calls.uint64 = CborWalk::Add<std::uint64_t>;
  calls.negint8 = CborWalk::AddNegative<std::uint8_t>;
  calls.negint16 = CborWalk::AddNegative<std::uint16_t>;
  calls.negint32 = CborWalk::AddNegative<std::uint32_t>;
  calls.negint64 = CborWalk::AddNegative<std::uint64_t>;
  calls.float4 = CborWalk::Add<float>, calls.float8 = CborWalk::Add<double>;
  calls.boolean = CborWalk::Add<bool>;
  calls.string = CborWalk::AddText, calls.byte_string = CborWalk::AddText;
  calls.map_start = [](void* walk, std::size_t pairs) {
    static_cast<CborWalk*>(walk)->Open(2 * pairs, true);
  };
  calls.array_start = [](void* walk, std::size_t items) {
    static_cast<CborWalk*>(walk)->Open(items, false);
  };
  return calls;
}

void WalkCbor(benchmark::State& state) {
  CborWriter writer;
  Write(writer, false);
  const cbor_callbacks calls = WalkCallbacks();
  TimeReading(state, writer.size, [&]() -> std::uint64_t {
    benchmark::ClobberMemory();
    CborWalk walk;
    for (std::size_t at = 0; at < writer.size;) {
      const cbor_decoder_result step =
          cbor_stream_decode(writer.bytes + at, writer.size - at, &calls, &walk);
      if (step.status != CBOR_DECODER_FINISHED) return 0;
      at += step.read;
    }
    return walk.sum.Get();
  });
}

BENCHMARK_CAPTURE(PackFlex, plain, false)->Name("pack/flexbuffers");
BENCHMARK_CAPTURE(PackMessagePack, plain, false)->Name("pack/msgpack");
BENCHMARK_CAPTURE(PackCbor, plain, false)->Name("pack/cbor");
BENCHMARK_CAPTURE(PackFlex, wide, true)->Name("pack/flexbuffers_from_utf16");
BENCHMARK_CAPTURE(PackMessagePack, wide, true)->Name("pack/msgpack_from_utf16");
BENCHMARK_CAPTURE(PackCbor, wide, true)->Name("pack/cbor_from_utf16");
BENCHMARK_CAPTURE(ReadFlex, by_name, true)->Name("unpack/flexbuffers");
BENCHMARK(UnpackMessagePack)->Name("unpack/msgpack");
BENCHMARK(UnpackCbor)->Name("unpack/cbor");
BENCHMARK_CAPTURE(ReadFlex, in_order, false)->Name("walk/flexbuffers");
BENCHMARK(WalkMessagePack)->Name("walk/msgpack");
BENCHMARK(WalkCbor)->Name("walk/cbor");

}  // namespace
}  // namespace bench
