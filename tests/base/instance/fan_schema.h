// A small schema as a generator would write it: constant data, with one of each thing that a
// definition can hold. Device has the key Id; Fan adds a reading and has a method.
#pragma once

#include <array>
#include <iterator>

#include "base/instance/class_definitions.h"

namespace stewardry::fan_schema {

// Where the slots lie.
constexpr std::uint32_t kIdAt = 64, kNameAt = 80, kSpeedsAt = 96, kOnAt = 120, kSize = 128;

inline constexpr std::uint8_t kTrue = 1;
inline constexpr QualifierDef kOctets = {u"Octetstring", CIM_BOOLEAN, 0x400, &kTrue};
inline constexpr std::uint32_t kFour = 4;
inline constexpr QualifierDef kUnit = {u"Version", CIM_UINT32, 0x401, &kFour};
inline constexpr const QualifierDef* kQualifiers[] = {&kOctets, &kUnit};

inline constexpr const char16_t* kDefaultName = u"unnamed";
inline constexpr const char16_t* kDefaultTexts[] = {u"a", nullptr, u"c"};
inline constexpr std::uint32_t kDefaultSpeeds[] = {100, 200, 300};
// The data of a default is only read.
inline const ArrayValue kSpeeds = {const_cast<std::uint32_t*>(kDefaultSpeeds), 3, 0};
inline const ArrayValue kTexts = {const_cast<const char16_t**>(kDefaultTexts), 3, 0};

inline constexpr PropertyDef kId = {.flags = FLAG_KEY,
                                    .nameCode = Name_Code(u"Id"),
                                    .name = u"Id",
                                    .type = CIM_UINT32,
                                    .offset = kIdAt,
                                    .value = &kFour};
inline constexpr PropertyDef kName = {.nameCode = Name_Code(u"Name"),
                                      .name = u"Name",
                                      .qualifiers = kQualifiers,
                                      .qualifierCount = 2,
                                      .type = CIM_STRING,
                                      .referenceClass = u"Ref",
                                      .maxSize = 77,
                                      .offset = kNameAt,
                                      .originClass = u"Origin",
                                      .propagatorClass = u"Propagator",
                                      .value = &kDefaultName};
inline const PropertyDef kSpeedsProperty = {.nameCode = Name_Code(u"Speeds"),
                                            .name = u"Speeds",
                                            .type = CIM_UINT32A,
                                            .offset = kSpeedsAt,
                                            .value = &kSpeeds};
inline constexpr PropertyDef kOn = {
    .nameCode = Name_Code(u"On"), .name = u"On", .type = CIM_BOOLEAN, .offset = kOnAt};
inline const PropertyDef* const kProperties[] = {&kId, &kName, &kSpeedsProperty, &kOn};

inline constexpr ParameterDef kReturn = {.nameCode = Name_Code(u"Return"),
                                         .name = u"Return",
                                         .qualifiers = kQualifiers,
                                         .qualifierCount = 1,
                                         .type = CIM_UINT32,
                                         .offset = 64};
inline constexpr ParameterDef kTarget = {.flags = FLAG_PARAMETER | FLAG_OUT,
                                         .nameCode = Name_Code(u"Target"),
                                         .name = u"Target",
                                         .qualifiers = kQualifiers,
                                         .qualifierCount = 2,
                                         .type = CIM_REFERENCE,
                                         .referenceClass = u"Device",
                                         .maxSize = 5,
                                         .offset = 72};
inline constexpr const ParameterDef* kParameters[] = {&kReturn, &kTarget};
inline constexpr MethodDef kSpin = {.flags = FLAG_METHOD,
                                    .nameCode = Name_Code(u"Spin"),
                                    .name = u"Spin",
                                    .qualifiers = kQualifiers,
                                    .qualifierCount = 2,
                                    .parameters = kParameters,
                                    .parameterCount = 2,
                                    .size = 88,
                                    .returnType = CIM_UINT32,
                                    .originClass = u"Origin",
                                    .propagatorClass = u"Propagator",
                                    .invoke = 9};
inline constexpr MethodDef kHalt = {.flags = FLAG_METHOD,
                                    .nameCode = Name_Code(u"Halt"),
                                    .name = u"Halt",
                                    .parameters = kParameters,
                                    .parameterCount = 1,
                                    .size = 72};
inline constexpr const MethodDef* kMethods[] = {&kSpin, &kHalt};

extern const SchemaDef kSchema;
inline const ClassDef kDevice = {.flags = FLAG_CLASS,
                                 .nameCode = Name_Code(u"Device"),
                                 .name = u"Device",
                                 .properties = kProperties,
                                 .propertyCount = 1,
                                 .size = 80,
                                 .schema = &kSchema};
inline const ClassDef kFan = {.flags = FLAG_CLASS,
                              .nameCode = Name_Code(u"Fan"),
                              .name = u"Fan",
                              .qualifiers = kQualifiers,
                              .qualifierCount = 2,
                              .properties = kProperties,
                              .propertyCount = 4,
                              .size = kSize,
                              .superclassName = u"Device",
                              .superclass = &kDevice,
                              .methods = kMethods,
                              .methodCount = 2,
                              .schema = &kSchema,
                              .extension = 3};
inline const ClassDef* const kClasses[] = {&kDevice, &kFan};
inline constexpr DefinitionHead kKeyQualifier = {0, Name_Code(u"Key"), u"Key"};
inline constexpr const DefinitionHead* kSeconds[] = {&kKeyQualifier};
inline const SchemaDef kSchema = {kClasses, 2, kSeconds, 1};

}  // namespace stewardry::fan_schema
