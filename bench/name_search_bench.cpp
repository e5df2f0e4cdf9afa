// Finds a property by its name, ignoring case, among 5, 32 and 200: the library's search, a
// case-sensitive hash map from names to indexes, and the same map for a caller that must first
// build a string from a text. An item is one name found; every name is searched in turn.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "cim/instance/class_definitions.h"
#include "cim/instance/instance.h"

namespace {

using std::u16string;

// Returns names like those of schemas: two or three words, some shared by many names.
std::vector<u16string> MakeNames(std::size_t count) {
  static const char16_t* const kWords[] = {u"Current", u"Enabled",   u"Requested", u"System",
                                           u"Time",    u"Operation", u"Health",    u"State",
                                           u"Primary", u"Element",   u"Max",       u"Number",
                                           u"Of",      u"Address",   u"Network",   u"Status"};
  std::vector<u16string> names;
  for (std::size_t i = 0; names.size() < count; ++i) {
    u16string name = kWords[i % 16];
    name += kWords[(i / 16 + i * 7 + 3) % 16];
    if (i % 3 != 0) name += kWords[(i * 5 + i / 7 + 1) % 16];
    bool isNew = true;
    for (const u16string& each : names) isNew = isNew && each != name;
    if (isNew) names.push_back(name);
  }
  return names;
}

// Returns the names in the order of the search, as copies at other addresses.
std::vector<u16string> Shuffled(std::vector<u16string> names) {
  std::mt19937 random(7);
  std::shuffle(names.begin(), names.end(), random);
  return names;
}

std::size_t CountOf(const benchmark::State& state) {
  return static_cast<std::size_t>(state.range(0));
}

template <class Find>
void FindAll(benchmark::State& state, const std::vector<u16string>& wanted, Find find) {
  std::int64_t found = 0;
  for (auto each : state) {
    (void)each;
    for (const u16string& name : wanted) benchmark::DoNotOptimize(found += find(name));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(wanted.size()));
}

void Ours(benchmark::State& state) {
  const std::vector<u16string> names = MakeNames(CountOf(state));
  stewardry::cim::Instance* instance = nullptr;
  (void)stewardry::cim::Instance_CreateDynamic(&instance, u"Bench", stewardry::cim::FLAG_CLASS,
                                               nullptr);
  for (const u16string& name : names) {
    if (stewardry::cim::Instance_AddProperty(instance, name.c_str(), nullptr,
                                             stewardry::cim::CIM_UINT32, 0) != stewardry::RESULT_OK)
      return state.SkipWithError("no property");
  }
  const stewardry::cim::ClassDef* def = stewardry::cim::Instance_Body(instance)->def;
  FindAll(state, Shuffled(names), [def](const u16string& name) {
    return stewardry::cim::ClassDef_FindProperty(def, name.c_str());
  });
  (void)stewardry::cim::Instance_Delete(instance);
}

std::unordered_map<u16string, int> MapOf(const std::vector<u16string>& names) {
  std::unordered_map<u16string, int> map;
  for (const u16string& name : names) map.emplace(name, static_cast<int>(map.size()));
  return map;
}

void Map(benchmark::State& state) {
  const std::vector<u16string> names = MakeNames(CountOf(state));
  const auto map = MapOf(names);
  FindAll(state, Shuffled(names), [&map](const u16string& name) { return map.find(name)->second; });
}

void MapFromText(benchmark::State& state) {
  const std::vector<u16string> names = MakeNames(CountOf(state));
  const auto map = MapOf(names);
  FindAll(state, Shuffled(names),
          [&map](const u16string& name) { return map.find(name.c_str())->second; });
}

BENCHMARK(Ours)->Name("name/ours")->ArgName("of")->Arg(5)->Arg(32)->Arg(200);
BENCHMARK(Map)->Name("name/map")->ArgName("of")->Arg(5)->Arg(32)->Arg(200);
BENCHMARK(MapFromText)->Name("name/map_from_text")->ArgName("of")->Arg(5)->Arg(32)->Arg(200);

}  // namespace
