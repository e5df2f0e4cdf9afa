// The packed form of the object library: packed from an instance and from the plain record,
// unpacked into an instance without copying, and walked over in place.
#include <benchmark/benchmark.h>

#include <cstring>
#include <iterator>
#include <vector>

#include "bench/packing/heap_calls.h"
#include "bench/packing/record.h"
#include "cim/message/message.h"
#include "cim/packing/packing.h"

namespace bench {
namespace {

using namespace stewardry;
using namespace stewardry::cim;

struct Field {
  const char16_t* name;
  std::uint32_t type;
};
constexpr Field kPartFields[] = {
    {u"Name", CIM_STRING}, {u"Code", CIM_UINT32}, {u"Enabled", CIM_BOOLEAN}, {u"Note", CIM_STRING}};
constexpr Field kFields[] = {
    {u"Slots", CIM_UINT8},       {u"Port", CIM_UINT16},     {u"Address", CIM_UINT32},
    {u"Serial", CIM_UINT64},     {u"Trim", CIM_SINT16},     {u"Drift", CIM_SINT32},
    {u"Balance", CIM_SINT64},    {u"Present", CIM_BOOLEAN}, {u"Faulty", CIM_BOOLEAN},
    {u"Volts", CIM_REAL32},      {u"Ratio", CIM_REAL64},    {u"Letter", CIM_CHAR16},
    {u"Caption", CIM_STRING},    {u"Uuid", CIM_STRING},     {u"Description", CIM_STRING},
    {u"State", CIM_STRING},      {u"When", CIM_DATETIME},   {u"Ports", CIM_UINT16A},
    {u"Addresses", CIM_UINT32A}, {u"Owners", CIM_STRINGA},  {u"Octets", CIM_UINT8A},
    {u"Part", CIM_INSTANCE}};

// A class like that of a generated schema.
class Class {
 public:
  template <std::size_t kCount>
  Class(const char16_t* name, const Field (&fields)[kCount]) : records_(kCount) {
    std::uint32_t at = sizeof(Instance);
    for (std::size_t i = 0; i < kCount; ++i) {
      const Field& field = fields[i];
      at = (at + 7) & ~7u;
      records_[i] = {};
      records_[i].name = field.name;
      records_[i].nameCode = Name_Code(field.name);
      records_[i].type = field.type;
      records_[i].offset = at;
      at += kSlotSizes[field.type];
      pointers_.push_back(&records_[i]);
    }
    def_.flags = FLAG_CLASS;
    def_.name = name;
    def_.nameCode = Name_Code(name);
    def_.properties = pointers_.data();
    def_.propertyCount = kCount;
    def_.size = (at + 7) & ~7u;
  }
  const ClassDef* Def() const { return &def_; }

 private:
  ClassDef def_{};
  std::vector<PropertyDef> records_;
  std::vector<const PropertyDef*> pointers_;
};

// Stores the fields in order, borrowed from the plain record.
class Stored {
 public:
  Stored(void* memory, const Class& of, Batch* batch) {
    isGood_ = Instance_InitAt(memory, of.Def(), batch) == RESULT_OK;
    instance_ = static_cast<Instance*>(memory);
  }
  template <class Member, class Value>
  void Put(Member CimValue::*member, const Value& plain) {
    CimValue value;
    value.*member = static_cast<Member>(plain);
    PutValue(value);
  }
  void Put(const BothText& text) { Put(&CimValue::string, text.wide.c_str()); }
  template <class Element>
  void Put(const Element* data, std::size_t count) {
    CimValue value;
    value.array = {const_cast<Element*>(data), static_cast<std::uint32_t>(count), 0};
    PutValue(value);
  }
  void PutValue(const CimValue& value) {
    const std::uint32_t type = instance_->def->properties[next_]->type;
    isGood_ =
        Instance_StorePropertyAt(instance_, next_++, &value, type, FLAG_BORROW) == RESULT_OK &&
        isGood_;
  }
  Instance* Get() const { return isGood_ ? instance_ : nullptr; }

 private:
  Instance* instance_;
  std::uint32_t next_ = 0;
  bool isGood_;
};

// The record as an instance in preallocated memory.
class RecordInstance {
 public:
  RecordInstance() { Batch_Init(&batch_, kNoPageLimit); }
  RecordInstance(const RecordInstance&) = delete;
  RecordInstance& operator=(const RecordInstance&) = delete;
  ~RecordInstance() { Batch_Destroy(&batch_); }

  Instance* Store(const PlainRecord& from) {
    Stored part(partMemory_.data(), part_, &batch_);
    part.Put(from.part.name);
    part.Put(&CimValue::uint32, from.part.code);
    part.Put(&CimValue::boolean, from.part.enabled);
    part.Put(from.part.note);
    Stored to(memory_.data(), record_, &batch_);
    StoreNumbers(from, &to);
    for (const BothText* text : {&from.caption, &from.uuid, &from.description, &from.state})
      to.Put(*text);
    CimValue when{};
    when.datetime.timestampForm = 1;
    when.datetime.timestamp.microseconds = from.whenMicroseconds;
    when.datetime.timestamp.utcOffset = from.whenOffset;
    to.PutValue(when);
    to.Put(from.ports.data(), from.ports.size());
    to.Put(from.addresses.data(), from.addresses.size());
    for (std::size_t i = 0; i < owners_.size(); ++i) owners_[i] = from.owners[i].wide.c_str();
    to.Put(owners_.data(), owners_.size());
    to.Put(from.octets.data(), from.octets.size());
    to.Put(&CimValue::instance, part.Get());
    return to.Get();
  }

 private:
  static void StoreNumbers(const PlainRecord& from, Stored* to) {
    to->Put(&CimValue::uint8, from.slots);
    to->Put(&CimValue::uint16, from.port);
    to->Put(&CimValue::uint32, from.address);
    to->Put(&CimValue::uint64, from.serial);
    to->Put(&CimValue::sint16, from.trim);
    to->Put(&CimValue::sint32, from.drift);
    to->Put(&CimValue::sint64, from.balance);
    to->Put(&CimValue::boolean, from.present);
    to->Put(&CimValue::boolean, from.faulty);
    to->Put(&CimValue::real32, from.volts);
    to->Put(&CimValue::real64, from.ratio);
    to->Put(&CimValue::char16, from.letter);
  }

  const Class part_{u"Part", kPartFields}, record_{u"Record", kFields};
  Batch batch_;
  std::array<std::uint64_t, 24> partMemory_;
  std::array<std::uint64_t, 128> memory_;
  std::array<const char16_t*, 3> owners_;
};

void AddText(Sum* sum, const char16_t* text) {
  sum->AddText(text, std::char_traits<char16_t>::length(text));
}

// Adds a value of any type but those of instances and arrays of texts.
void AddValue(Sum* sum, std::uint32_t type, const CimValue& value) {
  const ArrayValue& array = value.array;
  switch (type) {
    case CIM_BOOLEAN:
    case CIM_UINT8:
      return sum->Add(value.uint8);
    case CIM_UINT16:
    case CIM_CHAR16:
      return sum->Add(value.uint16);
    case CIM_SINT16:
      return sum->Add(value.sint16);
    case CIM_UINT32:
      return sum->Add(value.uint32);
    case CIM_SINT32:
      return sum->Add(value.sint32);
    case CIM_UINT64:
    case CIM_SINT64:
      return sum->Add(value.uint64);
    case CIM_REAL32:
      return sum->Add(value.real32);
    case CIM_REAL64:
      return sum->Add(value.real64);
    case CIM_STRING:
      return AddText(sum, value.string);
    case CIM_DATETIME:
      sum->Add(value.datetime.timestamp.microseconds);
      return sum->Add(value.datetime.timestamp.utcOffset);
    case CIM_UINT8A:
      return sum->AddText(static_cast<const std::uint8_t*>(array.data), array.size);
    case CIM_UINT16A:
      return sum->AddAll(static_cast<const std::uint16_t*>(array.data), array.size);
    default:
      return sum->AddAll(static_cast<const std::uint32_t*>(array.data), array.size);
  }
}

void AddInstance(Sum* sum, const Instance* instance) {
  CimValue value;
  std::uint32_t count = 0, type = 0;
  (void)Instance_PropertyCountOf(instance, &count);
  for (std::uint32_t i = 0; i < count; ++i) {
    if (Instance_PropertyAt(instance, i, nullptr, &value, &type, nullptr) != RESULT_OK) return;
    if (type == CIM_INSTANCE) {
      AddInstance(sum, value.instance);
    } else if (type == CIM_STRINGA) {
      for (std::uint32_t k = 0; k < value.array.size; ++k)
        AddText(sum, static_cast<const char16_t**>(value.array.data)[k]);
    } else {
      AddValue(sum, type, value);
    }
  }
}

bool AddWalked(Sum* sum, PackBuf* from) {
  PackBuf reader = *from;  // stays in registers
  PackedHead head;
  PackedProperty property;
  CimValue value;
  PackedTexts texts;
  const char16_t* text = nullptr;
  std::uint32_t length = 0;
  if (Packed_ReadHead(&reader, &head) != RESULT_OK) return false;
  for (std::uint32_t i = 0; i < head.propertyCount; ++i) {
    if (Packed_ReadProperty(&reader, &property) != RESULT_OK) return false;
    if (!property.present) continue;
    if (property.type == CIM_INSTANCE) {
      PackBuf nested = reader;
      if (!AddWalked(sum, &nested)) return false;
      reader.offset = nested.offset;
    } else if (property.type == CIM_STRING) {
      if (Packed_ReadText(&reader, &text, &length) != RESULT_OK) return false;
      sum->AddText(text, length);
    } else if (property.type == CIM_STRINGA) {
      if (Packed_ReadTexts(&reader, &texts) != RESULT_OK) return false;
      for (std::uint32_t k = 0; k < texts.count; ++k) sum->AddText(texts.At(k), texts.Length(k));
    } else {
      if (Packed_ReadValue(&reader, property.type, &value) != RESULT_OK) return false;
      AddValue(sum, property.type, value);
    }
  }
  const bool isWhole = Packed_ReadTail(&reader) == RESULT_OK;
  from->offset = reader.offset;
  return isWhole;
}

// Clears the buffer and packs into it again.
std::size_t Repack(const Instance* instance, PackBuf* buffer) {
  buffer->size = 0;
  const Result result = Instance_Pack(instance, false, nullptr, nullptr, buffer);
  return result == RESULT_OK ? buffer->size : 0;
}

void PackInstance(benchmark::State& state) {
  RecordInstance record;
  const Instance* instance = record.Store(kRecord);
  PackBuf buffer;
  (void)PackBuf_Init(&buffer, 2048);
  TimePacking(state, [&] { return Repack(instance, &buffer); });
  PackBuf_Destroy(&buffer);
}

void PackRecord(benchmark::State& state) {
  RecordInstance record;
  PackBuf buffer;
  (void)PackBuf_Init(&buffer, 2048);
  TimePacking(state, [&] { return Repack(record.Store(kRecord), &buffer); });
  PackBuf_Destroy(&buffer);
}

void PackToBatch(benchmark::State& state) {
  RecordInstance record;
  const Instance* instance = record.Store(kRecord);
  TimePacking(state, [&] {
    Batch batch;
    Batch_Init(&batch, kNoPageLimit);
    void* bytes = nullptr;
    std::uint32_t size = 0;
    (void)Instance_PackToBatch(instance, nullptr, nullptr, &batch, &bytes, &size);
    Batch_Destroy(&batch);
    return size;
  });
}

std::vector<std::uint64_t> PackedRecord(std::uint32_t* size) {
  RecordInstance record;
  PackBuf buffer;
  (void)PackBuf_Init(&buffer, 2048);
  *size = static_cast<std::uint32_t>(Repack(record.Store(kRecord), &buffer));
  std::vector<std::uint64_t> bytes((*size + 7) / 8);
  std::memcpy(bytes.data(), buffer.data, *size);
  PackBuf_Destroy(&buffer);
  return bytes;
}

// The bytes can be unpacked once, so each iteration copies them.
void Unpack(benchmark::State& state) {
  std::uint32_t size = 0;
  const std::vector<std::uint64_t> packed = PackedRecord(&size);
  std::vector<std::uint64_t> bytes(packed.size());
  TimeReading(state, size, [&] {
    std::memcpy(bytes.data(), packed.data(), size);
    Batch batch;
    Batch_Init(&batch, kNoPageLimit);
    Sum sum;
    Instance* instance = nullptr;
    if (Instance_UnpackBytes(&batch, bytes.data(), size, &instance)) AddInstance(&sum, instance);
    Batch_Destroy(&batch);
    return sum.Get();
  });
}

// The same into the instance of the iteration before.
void UnpackInto(benchmark::State& state) {
  std::uint32_t size = 0;
  const std::vector<std::uint64_t> packed = PackedRecord(&size);
  std::vector<std::uint64_t> bytes(packed.size());
  Instance* instance = nullptr;
  TimeReading(state, size, [&] {
    std::memcpy(bytes.data(), packed.data(), size);
    PackBuf reader = {reinterpret_cast<std::uint8_t*>(bytes.data()), size, 0, 0};
    Sum sum;
    if (Instance_UnpackInto(&instance, &reader) == RESULT_OK) AddInstance(&sum, instance);
    return sum.Get();
  });
  Instance_Drop(instance);
}

void Walk(benchmark::State& state) {
  std::uint32_t size = 0;
  std::vector<std::uint64_t> bytes = PackedRecord(&size);
  TimeReading(state, size, [&] {
    benchmark::ClobberMemory();
    PackBuf reader = {reinterpret_cast<std::uint8_t*>(bytes.data()), size, 0, 0};
    Sum sum;
    return AddWalked(&sum, &reader) ? sum.Get() : 0;
  });
}

// Stands for the transport: copies the pages' bytes once.
Message* Ship(const Message* sent) {
  BatchPageInfo list[8];
  if (Batch_PageCount(sent->batch) > std::size(list)) return nullptr;
  const std::size_t count = Batch_PageList(sent->batch, list);
  Batch* batch = nullptr;
  if (!Batch_FromPageSizes(&batch, list, count)) return nullptr;
  for (std::size_t i = 0; i < count; ++i)
    std::memcpy(Batch_PageAt(batch, i), list[i].data, list[i].size);
  Message* made = nullptr;
  (void)Message_Restore(batch, sent, list, count, false, &made);  // a failure leaves a null
  return made;
}

// A request with the record: packed for sending, shipped, restored, read and dropped.
void ShipMessage(benchmark::State& state) {
  RecordInstance record;
  Message* message = Message_Create(kCreateInstanceReq, Message_SizeOf(kCreateInstanceReq), 1, 0);
  Message_Field<const char16_t*>(message, 136) = u"root/cimv2";
  Message_Field<Instance*>(message, 144) = record.Store(kRecord);
  {
    const CountsHeapCalls counts(&state);
    TimeReading(state, 0, [&] {
      Sum sum;
      Message* clone = nullptr;
      if (MessagePackCloneForBinarySending(message, &clone) != RESULT_OK) return sum.Get();
      Message* made = Ship(clone);
      Message_Drop(clone);
      if (made == nullptr) return sum.Get();
      AddInstance(&sum, Message_Field<Instance*>(made, 144));
      Message_Drop(made);
      return sum.Get();
    });
  }
  Message_Drop(message);
}

BENCHMARK(ShipMessage)->Name("message/ours");
BENCHMARK(PackInstance)->Name("pack/ours");
BENCHMARK(PackRecord)->Name("pack/ours_from_record");
BENCHMARK(PackToBatch)->Name("pack/ours_to_batch");
BENCHMARK(Unpack)->Name("unpack/ours");
BENCHMARK(UnpackInto)->Name("unpack/ours_reused");
BENCHMARK(Walk)->Name("walk/ours");

}  // namespace
}  // namespace bench
