// The service's version text: what the banner, the firmware and the tray are told. It is the
// project's version in the uppermost CMakeLists.txt, as the executable's resources are.
#pragma once

namespace stewardry {

inline constexpr char kServiceVersion[] = STEWARDRY_VERSION;

}  // namespace stewardry
