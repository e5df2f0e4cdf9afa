// Doubly linked lists of records that carry their own links. A node begins with `next` and `prev`.
// The owner of a list holds its head and tail, both null for an empty list, and its rules say which
// thread may access it.
#pragma once

#include <cassert>

namespace stewardry {

// Links the node at the tail. Requires that the node is in no list.
template <class Node>
void DList_Append(Node** head, Node** tail, Node* node) {
  assert((*head == nullptr) == (*tail == nullptr));
  node->next = nullptr;
  node->prev = *tail;
  (*tail != nullptr ? (*tail)->next : *head) = node;
  *tail = node;
}

// Links the node at the head. Requires that the node is in no list.
template <class Node>
void DList_Prepend(Node** head, Node** tail, Node* node) {
  assert((*head == nullptr) == (*tail == nullptr));
  node->prev = nullptr;
  node->next = *head;
  (*head != nullptr ? (*head)->prev : *tail) = node;
  *head = node;
}

// Unlinks the node. Requires that it is in this list. Its own links stay as they are, so a walk can
// step on from a removed node.
template <class Node>
void DList_Remove(Node** head, Node** tail, Node* node) {
  assert((node->next != nullptr ? node->next->prev : *tail) == node);
  assert((node->prev != nullptr ? node->prev->next : *head) == node);
  (node->next != nullptr ? node->next->prev : *tail) = node->prev;
  (node->prev != nullptr ? node->prev->next : *head) = node->next;
}

}  // namespace stewardry
