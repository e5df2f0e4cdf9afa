// Lists of heap strings that end with an empty pointer, narrow and of 16-bit units. A list belongs
// to whoever made it, and to one thread at a time.
#pragma once

#include <cstddef>

namespace stewardry::cim {

using TextList = char**;
using TextListW = char16_t**;

// An empty list; empty when the heap fails. Ends with TextList_Free.
TextList TextList_New();
TextListW TextListW_New();

// Appends a copy of `text` to *list, which may move. When the list can't grow, it is freed with its
// strings and *list is empty; when the text can't be copied, the list stays as it was.
void TextList_Append(TextList* list, const char* text);
void TextListW_Append(TextListW* list, const char16_t* text);

// The number of strings; 0 for an empty pointer.
std::size_t TextList_Count(const char* const* list);
std::size_t TextListW_Count(const char16_t* const* list);

// Frees the strings and the list; an empty pointer does nothing.
void TextList_Free(TextList list);
void TextListW_Free(TextListW list);

}  // namespace stewardry::cim
