// Doubly linked lists of records that carry their own links. A node begins with `next` and `prev`;
// the owner of a list holds its head and tail, and its rules say which thread may touch it.
#pragma once

namespace stewardry {

// Links the node at the tail.
template <class Node>
void DList_Append(Node** head, Node** tail, Node* node) {
  node->next = nullptr;
  node->prev = *tail;
  (*tail != nullptr ? (*tail)->next : *head) = node;
  *tail = node;
}

// Links the node at the head.
template <class Node>
void DList_Prepend(Node** head, Node** tail, Node* node) {
  node->prev = nullptr;
  node->next = *head;
  (*head != nullptr ? (*head)->prev : *tail) = node;
  *head = node;
}

// Unlinks the node. Its own links stay, so a walk that stands on it can still step on.
template <class Node>
void DList_Remove(Node** head, Node** tail, Node* node) {
  (node->next != nullptr ? node->next->prev : *tail) = node->prev;
  (node->prev != nullptr ? node->prev->next : *head) = node->next;
}

}  // namespace stewardry
