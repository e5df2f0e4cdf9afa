// A schema of racks that hold disks and racks: nested instances of every kind, octet strings, keys
// with and without a default, and a method. Each slot has 40 bytes, as in a dynamic instance.
#pragma once

#include <array>

#include "cim/instance/class_definitions.h"

namespace stewardry::cim::rack_schema {

// Makes a property with at most one qualifier.
constexpr PropertyDef Slot(std::uint32_t index, const char16_t* name, std::uint32_t type,
                           std::uint32_t flags = 0, const void* value = nullptr,
                           const QualifierDef* const* qualifier = nullptr,
                           std::uint32_t qualifierCount = 0) {
  const std::uint32_t offset = 64 + 40 * index;
  return {flags, Name_Code(name), name,    qualifier, qualifierCount, type, nullptr,
          0,     offset,          nullptr, nullptr,   value};
}

template <class Definition, std::size_t Count>
constexpr std::array<const Definition*, Count> ListOf(const Definition (&definitions)[Count]) {
  std::array<const Definition*, Count> list{};
  for (std::size_t i = 0; i < Count; ++i) list[i] = &definitions[i];
  return list;
}

inline constexpr std::uint8_t kYes = 1, kNo = 0;
inline constexpr QualifierDef kOctets[] = {{u"OCTETSTRING", CIM_BOOLEAN, 0, &kYes},
                                           {u"Octetstring", CIM_BOOLEAN, 0, &kNo}};
inline constexpr auto kOctetList = ListOf(kOctets);

inline constexpr PropertyDef kDiskProperties[] = {
    Slot(0, u"Serial", CIM_STRING, FLAG_KEY),
    Slot(1, u"Size", CIM_UINT64),
    Slot(2, u"Data", CIM_UINT8A, 0, nullptr, &kOctetList[0], 1),
    Slot(3, u"Raw", CIM_UINT8A, 0, nullptr, &kOctetList[1], 1),
    Slot(4, u"Made", CIM_DATETIME),
    Slot(5, u"Labels", CIM_STRINGA),
    Slot(6, u"Temperatures", CIM_SINT32A),
};
inline constexpr auto kDiskList = ListOf(kDiskProperties);

inline constexpr const char16_t* kDefaultName = u"rack0";
inline constexpr PropertyDef kRackProperties[] = {
    Slot(0, u"Name", CIM_STRING, FLAG_KEY, &kDefaultName),
    Slot(1, u"Place", CIM_UINT16, FLAG_KEY),
    Slot(2, u"On", CIM_BOOLEAN),
    Slot(3, u"Disk", CIM_INSTANCE),
    Slot(4, u"DiskRef", CIM_REFERENCE),
    Slot(5, u"Disks", CIM_INSTANCEA),
    Slot(6, u"DiskRefs", CIM_REFERENCEA),
    Slot(7, u"Weight", CIM_REAL64),
    Slot(8, u"Inner", CIM_INSTANCE),
    Slot(9, u"Labels", CIM_STRINGA),
};
inline constexpr auto kRackList = ListOf(kRackProperties);

inline constexpr ParameterDef kFitParameters[] = {
    {0, Name_Code(u"Return"), u"Return", nullptr, 0, CIM_UINT32, nullptr, 0, 64},
    {0, Name_Code(u"Disk"), u"Disk", nullptr, 0, CIM_REFERENCE, nullptr, 0, 104},
    {FLAG_KEY, Name_Code(u"Slot"), u"Slot", nullptr, 0, CIM_UINT8, nullptr, 0, 144},
    {0, Name_Code(u"Seal"), u"Seal", &kOctetList[0], 1, CIM_UINT8A, nullptr, 0, 184},
};
inline constexpr auto kFitList = ListOf(kFitParameters);

extern const SchemaDef kSchema;
template <std::size_t Count>
constexpr ClassDef Class(const char16_t* name,
                         const std::array<const PropertyDef*, Count>& properties) {
  constexpr std::uint32_t kSize = 64 + 40 * Count;
  return {FLAG_CLASS, Name_Code(name), name,    nullptr, 0, properties.data(), Count,
          kSize,      nullptr,         nullptr, nullptr, 0, &kSchema};
}
inline constexpr ClassDef kDisk = Class(u"Disk", kDiskList), kRack = Class(u"Rack", kRackList);
inline constexpr MethodDef kFit = {FLAG_METHOD, Name_Code(u"Fit"), u"Fit",  nullptr,
                                   0,           kFitList.data(),   4,       224,
                                   CIM_UINT32,  nullptr,           nullptr, &kSchema};
inline const ClassDef* const kClasses[] = {&kDisk, &kRack};
inline const SchemaDef kSchema = {kClasses, 2, nullptr, 0};

}  // namespace stewardry::cim::rack_schema
