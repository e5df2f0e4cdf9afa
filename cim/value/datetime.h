// The text forms of a date-time value: the fixed form of 25 characters that the DMTF CIM standard
// (DSP0004) defines, with asterisks for fields that are unknown, and the lexical forms of the XML
// Schema types dateTime, date, time and duration. No range is tested anywhere: month 13 parses, and
// prints again as it came; both directions rely on that.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cim/value/values.h"

namespace stewardry::cim {

constexpr std::size_t kFixedDatetimeSize = 26;   // units of the fixed form and its terminator
constexpr std::size_t kSchemaDatetimeSize = 64;  // units of the longest schema form, cut to that

// All parsers take a text with its terminator and give 0, or -1 when the text doesn't fit or an
// argument is empty; the record then holds no defined value. Nothing is allocated. Any thread.
// Numbers have 32 bits and read as wcstoul reads them: a blank or a sign counts as a character of
// its field, and what is too large becomes 2^32-1.

// The fixed form or, if that doesn't fit, a schema form.
int Datetime_Parse(const char16_t* text, CimDatetime* value);

// Exactly 25 characters: yyyymmddhhmmss.mmmmmm+ooo (or -ooo, minutes from UTC) gives a timestamp,
// ddddddddhhmmss.mmmmmm:000 an interval. A field of asterisks alone is 0.
int Datetime_ParseFixed(const char16_t* text, CimDatetime* value);

// YYYY-MM-DD, YYYY-MM-DDThh:mm:ss or hh:mm:ss, with an optional fraction of the second and an
// optional zone, Z or +hh:mm or -hh:mm, behind the date and behind the time, gives a timestamp;
// PnYnMnDTnHnMn.nS, all items optional and in any order, an interval, whose seconds, minutes and
// hours are carried upwards and whose years and months become days (365.25 and 30.5, cut). Of a
// fraction six digits count. Negative years and durations are not taken.
int Datetime_ParseSchema(const char16_t* text, CimDatetime* value);

// One field of the fixed form: `width` units of `text` from `position` on, which must be one
// decimal number or all asterisks. 0, or -1 with a width of 64 and more or a text that ends within
// the field. `*value` is 0 for asterisks and for a field that begins with one and fails.
int Datetime_ReadField(const char16_t* text, std::size_t position, std::size_t width,
                       std::uint32_t* value);

// The fixed form and a terminator in kFixedDatetimeSize units; an empty text when a field is wider
// than its place and the whole doesn't fit. Nothing for an empty argument.
void Datetime_ToFixed(const CimDatetime* value, char16_t* buffer);

// The schema form and a terminator in kSchemaDatetimeSize units, cut to fit. A timestamp always has
// both date and time; an interval of zeros is "P". Nothing for an empty argument.
void Datetime_ToSchema(const CimDatetime* value, char16_t* buffer);

// The interval's length in microseconds, modulo 2^64. 0, or -1 for an empty argument or a
// timestamp.
int Datetime_IntervalToMicroseconds(const CimDatetime* value, std::uint64_t* microseconds);

}  // namespace stewardry::cim
