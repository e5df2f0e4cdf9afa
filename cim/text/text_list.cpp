#include "cim/text/text_list.h"

#include <cassert>
#include <cstring>
#include <string>

#include "cim/memory/heap.h"

namespace stewardry::cim {

namespace {

template <class Unit>
Unit** New() {
  auto** list = static_cast<Unit**>(Heap_Allocate(sizeof(Unit*)));
  if (list != nullptr) *list = nullptr;
  return list;
}

template <class Unit>
std::size_t Count(const Unit* const* list) {
  std::size_t count = 0;
  while (list != nullptr && list[count] != nullptr) ++count;
  return count;
}

template <class Unit>
void Free(Unit** list) {
  for (std::size_t i = Count(list); i-- > 0;) Heap_Free(list[i]);
  Heap_Free(list);
}

template <class Unit>
Unit* Duplicate(const Unit* text) {
  const std::size_t size = (std::char_traits<Unit>::length(text) + 1) * sizeof(Unit);
  auto* copy = static_cast<Unit*>(Heap_Allocate(size));
  if (copy != nullptr) std::memcpy(copy, text, size);
  return copy;
}

template <class Unit>
void Append(Unit*** list, const Unit* text) {
  assert(list != nullptr && text != nullptr);
  const std::size_t count = Count(*list);
  auto** longer = static_cast<Unit**>(Heap_Reallocate(*list, (count + 2) * sizeof(Unit*)));
  if (longer == nullptr) {
    Free(*list);  // the caller's pointer was the only one to it
    *list = nullptr;
    return;
  }
  longer[count] = Duplicate(text);
  longer[count + 1] = nullptr;
  *list = longer;
}

}  // namespace

TextList TextList_New() { return New<char>(); }
TextListW TextListW_New() { return New<char16_t>(); }
void TextList_Append(TextList* list, const char* text) { Append(list, text); }
void TextListW_Append(TextListW* list, const char16_t* text) { Append(list, text); }
std::size_t TextList_Count(const char* const* list) { return Count(list); }
std::size_t TextListW_Count(const char16_t* const* list) { return Count(list); }
void TextList_Free(TextList list) { Free(list); }
void TextListW_Free(TextListW list) { Free(list); }

}  // namespace stewardry::cim
