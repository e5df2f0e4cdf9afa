// What kind of machine this is, for the reader of the service log. Nothing behaves differently on
// a laptop.
#pragma once

namespace stewardry {

// Asks WMI for the chassis types and writes "Chassis Types:" and then "Laptop" or "Desktop
// detected" for each to the service log. A failing step ends it without a word. Any thread that
// hasn't opened COM in another mode; the service's start-up calls it once.
void DetectChassis();

}  // namespace stewardry
