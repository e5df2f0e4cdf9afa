// How the object library's cost grows: with the properties of an instance, the instances in a
// message and the depth of nesting. `growth_library [PERCENT]` prints "curve,series,x,y" for each
// point, y in nanoseconds of processor time for each property, instance or level: the median of
// three measurements. Sizes above PERCENT of the largest are left out.
// `growth_library CURVE SIZE` measures one point, for a profiler.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "cim/instance/instance.h"
#include "cim/message/message.h"
#include "cim/packing/packing.h"

namespace growth {

namespace {

using namespace stewardry;
using namespace stewardry::cim;

constexpr int kRepetitions = 3;
constexpr double kShortest = 2e6;  // nanoseconds of a measurement

// A step that fails makes the numbers worthless.
void Require(bool isTrue, const char* what) {
  if (isTrue) return;
  std::fprintf(stderr, "failed: %s\n", what);
  std::exit(1);
}

double ProcessorNanoseconds() {
  timespec now;
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// Returns the nanoseconds of one call. The calls between two looks at the clock are doubled until
// they take long enough, so that the clock's own time doesn't count.
template <class Work>
double MeasureOnce(Work work) {
  for (std::uint64_t calls = 1;; calls *= 2) {
    const double began = ProcessorNanoseconds();
    for (std::uint64_t i = 0; i < calls; ++i) work();
    const double taken = ProcessorNanoseconds() - began;
    if (taken >= kShortest) return taken / static_cast<double>(calls);
  }
}

template <class Work>
void Print(const char* curve, const char* series, std::size_t x, Work work) {
  std::vector<double> taken;
  for (int i = 0; i < kRepetitions; ++i) taken.push_back(MeasureOnce(work));
  std::sort(taken.begin(), taken.end());
  std::printf("%s,%s,%zu,%.3f\n", curve, series, x,
              taken[taken.size() / 2] / static_cast<double>(x));
  std::fflush(stdout);
}

// Owns an instance and its batch.
class Made {
 public:
  explicit Made(const char16_t* className) {
    Batch_Init(&batch_, kNoPageLimit);
    Require(Instance_CreateDynamic(&instance_, className, FLAG_CLASS, &batch_) == RESULT_OK,
            "an instance");
  }
  Made(const Made&) = delete;
  Made& operator=(const Made&) = delete;
  ~Made() { Batch_Destroy(&batch_); }

  Instance* Get() const { return instance_; }
  void Add(const char16_t* name, std::uint32_t type, const CimValue& value) {
    Require(Instance_AddProperty(instance_, name, &value, type, FLAG_BORROW) == RESULT_OK,
            "a property");
  }

 private:
  Batch batch_;
  Instance* instance_ = nullptr;
};

CimValue Number(std::uint32_t number) {
  CimValue value{};
  value.uint32 = number;
  return value;
}
CimValue Text(const char16_t* text) {
  CimValue value{};
  value.string = text;
  return value;
}

// Names like those of schemas: two words, then letters that make them different.
std::vector<std::u16string> MakeNames(std::size_t count) {
  static const char16_t* const kWords[] = {u"Current", u"Enabled", u"Requested", u"System",
                                           u"Time",    u"Health",  u"Primary",   u"Network"};
  std::vector<std::u16string> names(count);
  for (std::size_t i = 0; i < count; ++i) {
    names[i] = kWords[i % 8];
    names[i] += kWords[(i / 8 + 3) % 8];
    for (std::size_t rest = i; rest > 0; rest /= 26)
      names[i] += static_cast<char16_t>(u'a' + rest % 26);
  }
  return names;
}

void FillProperties(const std::vector<std::u16string>& names, Made* made) {
  for (std::size_t i = 0; i < names.size(); ++i) {
    const bool isText = i % 2 != 0;
    made->Add(names[i].c_str(), isText ? CIM_STRING : CIM_UINT32,
              isText ? Text(u"a text of a property") : Number(static_cast<std::uint32_t>(i)));
  }
}

// Packed bytes, and a copy of them to be unpacked: what is read is changed.
class Packed {
 public:
  explicit Packed(const Instance* instance) {
    PackBuf buffer;
    Require(PackBuf_Init(&buffer, kPackCapacity) == RESULT_OK, "a buffer");
    Require(Instance_Pack(instance, false, nullptr, nullptr, &buffer) == RESULT_OK, "packing");
    size_ = buffer.size;
    bytes_.resize((size_ + 7) / 8);
    std::memcpy(bytes_.data(), buffer.data, size_);
    copy_ = bytes_;
    PackBuf_Destroy(&buffer);
  }

  PackBuf Reader() { return {reinterpret_cast<std::uint8_t*>(bytes_.data()), size_, 0, 0}; }
  // The copy of the bytes is a part of what is measured.
  void Unpack() {
    std::memcpy(copy_.data(), bytes_.data(), size_);
    Batch batch;
    Batch_Init(&batch, kNoPageLimit);
    Instance* instance = nullptr;
    Require(Instance_UnpackBytes(&batch, copy_.data(), size_, &instance), "unpacking");
    Batch_Destroy(&batch);
  }

 private:
  std::vector<std::uint64_t> bytes_, copy_;
  std::uint32_t size_ = 0;
};

void WalkInstance(PackBuf* reader) {
  PackedHead head;
  PackedProperty property;
  CimValue value;
  std::uint32_t count = 1;
  Require(Packed_ReadHead(reader, &head) == RESULT_OK, "a head");
  for (std::uint32_t i = 0; i < head.propertyCount; ++i) {
    Require(Packed_ReadProperty(reader, &property) == RESULT_OK, "a property");
    if (property.type == CIM_INSTANCE || property.type == CIM_INSTANCEA) {
      if (property.type == CIM_INSTANCEA)
        Require(Packed_ReadInstanceCount(reader, &count) == RESULT_OK, "a count");
      for (std::uint32_t k = 0; k < count; ++k) WalkInstance(reader);
    } else {
      Require(Packed_ReadValue(reader, property.type, &value) == RESULT_OK, "a value");
    }
  }
  Require(Packed_ReadTail(reader) == RESULT_OK, "a tail");
}

// Packs, unpacks and walks an instance that holds `x` of what the curve is about.
void PrintPackedForm(const char* curve, std::size_t x, const Instance* instance) {
  PackBuf buffer;
  Require(PackBuf_Init(&buffer, kPackCapacity) == RESULT_OK, "a buffer");
  Print(curve, "pack", x, [&] {
    buffer.size = 0;
    Require(Instance_Pack(instance, false, nullptr, nullptr, &buffer) == RESULT_OK, "packing");
  });
  PackBuf_Destroy(&buffer);
  Packed packed(instance);
  Print(curve, "unpack", x, [&] { packed.Unpack(); });
  Print(curve, "walk", x, [&] {
    PackBuf reader = packed.Reader();
    WalkInstance(&reader);
  });
}

void MeasureProperties(std::size_t count) {
  const std::vector<std::u16string> names = MakeNames(count);
  Made made(u"Bench");
  FillProperties(names, &made);
  PrintPackedForm("properties", count, made.Get());
  Print("properties", "add", count, [&] {
    Made fresh(u"Bench");
    FillProperties(names, &fresh);
  });
  Print("properties", "set by name", count, [&] {
    for (std::size_t i = 0; i < names.size(); ++i) {
      const CimValue value = i % 2 != 0 ? Text(u"another text") : Number(1);
      const std::uint32_t type = i % 2 != 0 ? CIM_STRING : CIM_UINT32;
      Require(Instance_StoreProperty(made.Get(), names[i].c_str(), &value, type, FLAG_BORROW) ==
                  RESULT_OK,
              "setting by name");
    }
  });
}

// Stands for the transport: the receiver's pages, with the bytes of the sender's.
Batch* ShipPages(const Message* sent, std::vector<BatchPageInfo>* list) {
  list->resize(Batch_PageCount(sent->batch));
  (void)Batch_PageList(sent->batch, list->data());
  Batch* batch = nullptr;
  Require(Batch_FromPageSizes(&batch, list->data(), list->size()), "the pages");
  for (std::size_t i = 0; i < list->size(); ++i)
    std::memcpy(Batch_PageAt(batch, i), (*list)[i].data, (*list)[i].size);
  return batch;
}

// A request whose instance has an array of `count` instances of four properties: cloned for
// sending, its pages copied, restored and dropped.
void MeasureInstances(std::size_t count) {
  Made part(u"Part");
  FillProperties(MakeNames(4), &part);
  std::vector<Instance*> parts(count, part.Get());
  CimValue value{};
  value.array = {parts.data(), static_cast<std::uint32_t>(count), 0};
  Made whole(u"Whole");
  whole.Add(u"Parts", CIM_INSTANCEA, value);
  Message* message = Message_Create(kCreateInstanceReq, Message_SizeOf(kCreateInstanceReq), 1, 0);
  Require(message != nullptr, "a message");
  Message_Field<const char16_t*>(message, 136) = u"root/cimv2";
  Message_Field<Instance*>(message, 144) = whole.Get();
  Message* sent = nullptr;
  Print("instances", "clone for sending", count, [&] {
    if (sent != nullptr) Message_Drop(sent);
    Require(MessagePackCloneForBinarySending(message, &sent) == RESULT_OK, "a clone");
  });
  std::vector<BatchPageInfo> list;
  Print("instances", "ship and restore", count, [&] {
    Batch* arrived = ShipPages(sent, &list);
    Message* made = nullptr;
    Require(Message_Restore(arrived, sent, list.data(), list.size(), false, &made) == RESULT_OK,
            "restoring");
    Message_Drop(made);
  });
  Message_Drop(sent);
  Message_Drop(message);
}

// `depth` instances, each in the one before, with one more property each.
void MeasureNesting(std::size_t depth) {
  std::vector<std::unique_ptr<Made>> levels;
  for (std::size_t i = 0; i < depth; ++i) {
    auto level = std::make_unique<Made>(u"Level");
    level->Add(u"Caption", CIM_STRING, Text(u"a text of a property"));
    CimValue inner{};
    if (!levels.empty()) {
      inner.instance = levels.back()->Get();
      level->Add(u"Inner", CIM_INSTANCE, inner);
    }
    levels.push_back(std::move(level));
  }
  PrintPackedForm("nesting", depth, levels.back()->Get());
}

struct Curve {
  const char* name;
  void (*measure)(std::size_t size);
  std::vector<std::size_t> sizes;  // in ascending order
};

const Curve kCurves[] = {
    {"properties",
     MeasureProperties,
     {2, 5, 10, 20, 32, 50, 100, 200, 350, 500, 700, 1000, 1400, 2000}},
    {"instances",
     MeasureInstances,
     {1, 3, 10, 30, 100, 300, 1000, 3000, 10000, 20000, 30000, 50000, 70000, 100000}},
    {"nesting", MeasureNesting, {1, 2, 4, 8, 12, 16, 24, 32, 40, 48, 56, kMaxPackedDepth}},
};

void Run(std::size_t percent) {
  std::printf("curve,series,x,y\n");
  for (const Curve& curve : kCurves)
    for (const std::size_t size : curve.sizes)
      if (size <= 2 || size * 100 <= curve.sizes.back() * percent) curve.measure(size);
}

void RunPoint(const std::string& name, std::size_t size) {
  for (const Curve& curve : kCurves)
    if (curve.name == name) curve.measure(size);
}

}  // namespace

}  // namespace growth

int main(int argc, char** argv) {
  if (argc == 3)
    growth::RunPoint(argv[1], std::strtoul(argv[2], nullptr, 10));
  else
    growth::Run(argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 100);
  return 0;
}
