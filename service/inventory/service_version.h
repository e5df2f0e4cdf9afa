// The service's version text: what the banner, the firmware and the tray are told.
#pragma once

namespace stewardry {

inline constexpr char kServiceVersion[] = "1.0.0.533";

}  // namespace stewardry
