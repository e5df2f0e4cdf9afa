// The text forms of a date-time: the fixed form of 25 characters that the DMTF CIM standard
// (DSP0004) defines, with asterisks for unknown fields, and the lexical forms of the XML Schema
// types dateTime, date, time and duration. Ranges are not checked: month 13 is parsed and printed
// back unchanged.
//
// Nothing is allocated. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cim/value/values.h"

namespace stewardry::cim {

constexpr std::size_t kFixedDatetimeSize = 26;   // units of the fixed form with its terminator
constexpr std::size_t kSchemaDatetimeSize = 64;  // units to which a schema form is cut

// The parsers return 0, or -1 for a text of another form and for a null argument; the record is
// then undefined. Numbers have 32 bits and the syntax of wcstoul: a blank or a sign counts as a
// character of its field, and a number too large becomes 2^32-1.

// Parses the fixed form or, failing that, a schema form.
int Datetime_Parse(const char16_t* text, CimDatetime* value);

// Parses exactly 25 characters: a timestamp, yyyymmddhhmmss.mmmmmm+ooo or -ooo (minutes from UTC),
// or an interval, ddddddddhhmmss.mmmmmm:000. A field of asterisks is 0.
int Datetime_ParseFixed(const char16_t* text, CimDatetime* value);

// Parses a timestamp or an interval. A timestamp is YYYY-MM-DD, YYYY-MM-DDThh:mm:ss or hh:mm:ss,
// with an optional fraction of the second and an optional zone, Z, +hh:mm or -hh:mm, after the date
// and after the time. An interval is PnYnMnDTnHnMn.nS, with all items optional and in any order;
// seconds, minutes and hours are carried to the next unit, years and months are converted to days
// (365.25 and 30.5, truncated). Six digits of a fraction are used. Negative years and durations are
// refused.
int Datetime_ParseSchema(const char16_t* text, CimDatetime* value);

// Parses one field of the fixed form: `width` units of `text` from `position` on, one decimal
// number or all asterisks. Returns 0, or -1 for any other field, a width above 63, a text that ends
// within the field and a null argument. `*value` is 0 for a field that begins with an asterisk.
int Datetime_ReadField(const char16_t* text, std::size_t position, std::size_t width,
                       std::uint32_t* value);

// Writes the fixed form and a terminator, kFixedDatetimeSize units, or an empty text if a wider
// field makes the form longer. Does nothing for a null argument.
void Datetime_ToFixed(const CimDatetime* value, char16_t* buffer);

// Writes the schema form and a terminator, cut to kSchemaDatetimeSize units. A timestamp has both
// date and time; an interval of zeros is "P". Does nothing for a null argument.
void Datetime_ToSchema(const CimDatetime* value, char16_t* buffer);

// Stores the interval's length in microseconds, modulo 2^64, and returns 0. Returns -1 for a
// timestamp and a null argument.
int Datetime_IntervalToMicroseconds(const CimDatetime* value, std::uint64_t* microseconds);

}  // namespace stewardry::cim
