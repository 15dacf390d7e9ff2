// A small intrusive doubly linked list (circular, with a head node).
#pragma once
#include <cstddef>

struct ce_list_t {
    ce_list_t *next;
    ce_list_t *prev;
};

inline void ce_list_init(ce_list_t *head) { head->next = head->prev = head; }
inline bool ce_list_empty(const ce_list_t *head) { return head->next == head; }
// A node that is in no list has both links null (zero-filled) or points to itself.
inline bool ce_list_linked(const ce_list_t *node) {
    return node->next != nullptr && node->next != node;
}
inline void ce_list_add_head(ce_list_t *head, ce_list_t *node) {
    node->next = head->next;
    node->prev = head;
    head->next->prev = node;
    head->next = node;
}
inline void ce_list_del(ce_list_t *node) {
    node->prev->next = node->next;
    node->next->prev = node->prev;
    node->next = node->prev = nullptr;
}
#define CE_LIST_ENTRY(ptr, type, member) \
    reinterpret_cast<type *>(reinterpret_cast<char *>(ptr) - offsetof(type, member))
