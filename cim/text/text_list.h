// Lists of heap strings that end with a null pointer, narrow and of 16-bit units. One thread at a
// time uses a list.
#pragma once

#include <cstddef>

namespace stewardry::cim {

using TextList = char**;
using TextListW = char16_t**;

// Return a list without strings; null if the allocation fails. The caller ends it with
// TextList_Free.
TextList TextList_New();
TextListW TextListW_New();

// Append a copy of `text` to *list, which may move. If the list cannot grow, it is freed with its
// strings and *list becomes null. If the text cannot be copied, the list stays unchanged.
void TextList_Append(TextList* list, const char* text);
void TextListW_Append(TextListW* list, const char16_t* text);

// Return the number of strings; 0 for a null pointer.
std::size_t TextList_Count(const char* const* list);
std::size_t TextListW_Count(const char16_t* const* list);

// Free the strings and the list; ignore a null pointer.
void TextList_Free(TextList list);
void TextListW_Free(TextListW list);

}  // namespace stewardry::cim
