// A schema of racks that hold disks and racks: nested instances of every kind, octet strings, keys
// with and without a default, and a method. Each slot takes 40 bytes, so that offsets are plain.
#pragma once

#include <array>

#include "base/instance/class_definitions.h"

namespace stewardry::rack_schema {

template <std::size_t Count>
constexpr std::array<const PropertyDef*, Count> ListOf(const PropertyDef (&properties)[Count]) {
  std::array<const PropertyDef*, Count> list{};
  for (std::size_t i = 0; i < Count; ++i) list[i] = &properties[i];
  return list;
}

constexpr PropertyDef Property(std::uint32_t index, const char16_t* name, std::uint32_t type,
                               std::uint32_t flags = 0, const void* value = nullptr) {
  return {.flags = flags,
          .nameCode = Name_Code(name),
          .name = name,
          .type = type,
          .offset = 64 + 40 * index,
          .value = value};
}

constexpr PropertyDef Qualified(PropertyDef property, const QualifierDef* const* qualifier) {
  property.qualifiers = qualifier;
  property.qualifierCount = 1;
  return property;
}

inline constexpr std::uint8_t kYes = 1, kNo = 0;
inline constexpr std::uint32_t kNumber = 1;
inline constexpr QualifierDef kOctetYes = {u"OCTETSTRING", CIM_BOOLEAN, 0, &kYes};
inline constexpr QualifierDef kOctetNo = {u"Octetstring", CIM_BOOLEAN, 0, &kNo};
inline constexpr QualifierDef kOctetNumber = {u"Octetstring", CIM_UINT32, 0, &kNumber};
inline constexpr const QualifierDef* kOctetYesList[] = {&kOctetYes};
inline constexpr const QualifierDef* kOctetNoList[] = {&kOctetNo};
inline constexpr const QualifierDef* kOctetNumberList[] = {&kOctetNumber};

inline constexpr PropertyDef kDiskProperties[] = {
    Property(0, u"Serial", CIM_STRING, FLAG_KEY),
    Property(1, u"Size", CIM_UINT64),
    Qualified(Property(2, u"Data", CIM_UINT8A), kOctetYesList),
    Qualified(Property(3, u"Raw", CIM_UINT8A), kOctetNoList),
    Qualified(Property(4, u"Odd", CIM_UINT8A), kOctetNumberList),
    Property(5, u"Made", CIM_DATETIME),
    Property(6, u"Labels", CIM_STRINGA),
    Property(7, u"Temperatures", CIM_SINT32A),
};
inline constexpr auto kDiskList = ListOf(kDiskProperties);

inline constexpr const char16_t* kDefaultName = u"rack0";
inline constexpr PropertyDef kRackProperties[] = {
    Property(0, u"Name", CIM_STRING, FLAG_KEY, &kDefaultName),
    Property(1, u"Place", CIM_UINT16, FLAG_KEY),
    Property(2, u"On", CIM_BOOLEAN),
    Property(3, u"Disk", CIM_INSTANCE),
    Property(4, u"DiskRef", CIM_REFERENCE),
    Property(5, u"Disks", CIM_INSTANCEA),
    Property(6, u"DiskRefs", CIM_REFERENCEA),
    Property(7, u"Weight", CIM_REAL64),
    Property(8, u"Inner", CIM_INSTANCE),
};
inline constexpr auto kRackList = ListOf(kRackProperties);

inline constexpr ParameterDef kReturn = {
    .nameCode = Name_Code(u"Return"), .name = u"Return", .type = CIM_UINT32, .offset = 64};
inline constexpr ParameterDef kDiskParameter = {
    .nameCode = Name_Code(u"Disk"), .name = u"Disk", .type = CIM_REFERENCE, .offset = 104};
inline constexpr ParameterDef kSlotParameter = {.flags = FLAG_KEY,
                                                .nameCode = Name_Code(u"Slot"),
                                                .name = u"Slot",
                                                .type = CIM_UINT8,
                                                .offset = 144};
inline constexpr const ParameterDef* kFitParameters[] = {&kReturn, &kDiskParameter,
                                                         &kSlotParameter};

extern const SchemaDef kSchema;
inline const ClassDef kDisk = {.flags = FLAG_CLASS,
                               .nameCode = Name_Code(u"Disk"),
                               .name = u"Disk",
                               .properties = kDiskList.data(),
                               .propertyCount = kDiskList.size(),
                               .size = 64 + 40 * kDiskList.size(),
                               .schema = &kSchema};
inline const ClassDef kRack = {.flags = FLAG_CLASS,
                               .nameCode = Name_Code(u"Rack"),
                               .name = u"Rack",
                               .properties = kRackList.data(),
                               .propertyCount = kRackList.size(),
                               .size = 64 + 40 * kRackList.size(),
                               .schema = &kSchema};
inline const ClassDef kSecondKind = {
    .flags = FLAG_KIND_10, .nameCode = Name_Code(u"SecondKind"), .name = u"SecondKind", .size = 64};
inline const MethodDef kFit = {.flags = FLAG_METHOD,
                               .nameCode = Name_Code(u"Fit"),
                               .name = u"Fit",
                               .parameters = kFitParameters,
                               .parameterCount = 3,
                               .size = 184,
                               .schema = &kSchema};
inline const ClassDef* const kClasses[] = {&kDisk, &kRack, &kSecondKind};
inline const SchemaDef kSchema = {kClasses, 3, nullptr, 0};

}  // namespace stewardry::rack_schema
