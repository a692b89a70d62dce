// The intrusive list: a circular, doubly linked ring with a head link that holds no element.
// A record that is to live on a list embeds a list_link_t. The functions touch links only; who
// owns the records is the caller's matter. One thread at a time, or under the caller's lock.

#ifndef ZD_LIST_H
#define ZD_LIST_H

#include "common/zd_base.h"

typedef struct list_link_s {
    struct list_link_s *next;
    struct list_link_s *prev;
} list_link_t;

// A list head. Empty: both links point at the head itself.
typedef list_link_t list_t;

// The record of type that embeds the link as member.
#define list_entry(link, type, member) ((type *)(void *)((char *)(link)-offsetof(type, member)))

// position is a name to declare, which parentheses would only obscure.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define list_for_each(position, head)                                                              \
    for (list_link_t *position = (head)->next; position != (head); position = position->next)
// NOLINTEND(bugprone-macro-parentheses)

static inline void list_init(list_t *head) {
    head->next = head;
    head->prev = head;
}

static inline int list_is_empty(const list_t *head) {
    return head->next == head;
}

static inline void list_insert_after(list_link_t *position, list_link_t *link) {
    link->next = position->next;
    link->prev = position;
    position->next->prev = link;
    position->next = link;
}

static inline void list_insert_before(list_link_t *position, list_link_t *link) {
    list_insert_after(position->prev, link);
}

static inline void list_add_head(list_t *head, list_link_t *link) {
    list_insert_after(head, link);
}

static inline void list_add_tail(list_t *head, list_link_t *link) {
    list_insert_before(head, link);
}

// The link itself keeps its old neighbours.
static inline void list_unlink(list_link_t *link) {
    link->prev->next = link->next;
    link->next->prev = link->prev;
}

#endif
