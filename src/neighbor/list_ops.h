// Circular doubly linked list operations on list_head, with the kernel's list semantics.
#pragma once

#include <cstdint>

#include "neighbor/ap_info.h"

// Links of a deleted node point here so that a use after unlinking faults at a recognisable
// address instead of walking a live list.
inline list_head *const LIST_POISON1 = reinterpret_cast<list_head *>(uintptr_t{0x100100});
inline list_head *const LIST_POISON2 = reinterpret_cast<list_head *>(uintptr_t{0x200200});

inline void INIT_LIST_HEAD(list_head *head) {
    head->next = head;
    head->prev = head;
}

inline bool list_empty(const list_head *head) {
    return head->next == head;
}

// Inserts `node` just before `head`, i.e. at the tail of the list that `head` heads.
inline void list_add_tail(list_head *node, list_head *head) {
    list_head *prev = head->prev;
    node->next = head;
    node->prev = prev;
    prev->next = node;
    head->prev = node;
}

inline void list_del(list_head *node) {
    node->prev->next = node->next;
    node->next->prev = node->prev;
    node->next = LIST_POISON1;
    node->prev = LIST_POISON2;
}
