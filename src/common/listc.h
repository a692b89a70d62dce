// Container lists: rings of nodes that each carry one untyped data pointer, handled as bags of
// pointers. Elements are compared by the pointer alone; nobody looks into the data. Nodes belong
// to the list and come from the allocator that is passed in; the data belongs to the caller, save
// in the _with_data operations. An allocation that fails goes to the allocator's throw and leaves
// a new list that was begun to the allocator. Membership tests are linear, the set operations
// quadratic: these lists are meant to be short. One thread at a time.

#ifndef LISTC_H
#define LISTC_H

#include "common/alloc/allocator.h"
#include "common/list.h"
#include "common/zd_base.h"

// A node, or a head. A head's data is NULL and never looked at.
typedef struct listc_s {
    list_link_t link; // first, so that a node and its link have one address
    void *data;
} listc_t;

static_assert(sizeof(listc_t) == 24, "listc_t is part of the ABI");
static_assert(offsetof(listc_t, link) == 0, "listc_t is part of the ABI");
static_assert(offsetof(listc_t, data) == 16, "listc_t is part of the ABI");

ZD_BEGIN_DECLS

// An empty list; its owner ends it with listc_free.
ZD_API listc_t *listc_new(allocator_t *alloc);

ZD_API void listc_add(void *data, listc_t *head, allocator_t *alloc);
ZD_API void listc_add_tail(void *data, listc_t *head, allocator_t *alloc);

// Unlinks and frees a node; with_data frees its data, which must not be NULL, before it.
ZD_API void listc_free_ele(listc_t *pos, allocator_t *alloc);
ZD_API void listc_free_ele_with_data(listc_t *pos, allocator_t *alloc);

// Free every node, and with_data its data, which must not be NULL; the head stays, empty.
ZD_API void listc_clear(listc_t *head, allocator_t *alloc);
ZD_API void listc_clear_with_data(listc_t *head, allocator_t *alloc);

// Clears the list and frees its head. The data is not freed.
ZD_API void listc_free(listc_t *head, allocator_t *alloc);

// The first node that holds data, or NULL.
ZD_API listc_t *listc_find(const void *data, const listc_t *head);

// The position of that node, from 0, or -1.
ZD_API int listc_find_idx(const void *data, const listc_t *head);

// The _to operations append their result to dest, which may be one of the lists that they read:
// they walk the elements that were there at the call.

// The same data in the same order.
ZD_API listc_t *listc_copy(const listc_t *src, allocator_t *alloc);
ZD_API listc_t *listc_copy_to(const listc_t *src, listc_t *dest,
                              allocator_t *alloc); // returns dest

// All of list1, then each element of list2 that is not in list1. Duplicates within either list
// stay.
ZD_API listc_t *listc_union(const listc_t *list1, const listc_t *list2, allocator_t *alloc);
ZD_API listc_t *listc_union_to(const listc_t *list1, const listc_t *list2, listc_t *dest,
                               allocator_t *alloc); // returns dest

// Each element of list1 that is in list2: duplicates of list1 stay.
ZD_API listc_t *listc_intersection(const listc_t *list1, const listc_t *list2, allocator_t *alloc);
ZD_API void listc_intersection_to(const listc_t *list1, const listc_t *list2, listc_t *dest,
                                  allocator_t *alloc);

// list1 less the first occurrence of each element of list2: one removal for each occurrence there.
// listc_minus makes a new list; listc_minus_from removes from list1 and returns it.
ZD_API listc_t *listc_minus(const listc_t *list1, const listc_t *list2, allocator_t *alloc);
ZD_API listc_t *listc_minus_from(listc_t *list1, const listc_t *list2, allocator_t *alloc);

// 1 when every element of sub is in head, else 0. The empty list is a subset of every list.
ZD_API uchar listc_is_subset(const listc_t *sub, const listc_t *head);

// 1 when some element of list1 is in list2, else 0.
ZD_API uchar listc_is_overlap(const listc_t *list1, const listc_t *list2);

// Sets the data of the node at position idx; a negative idx means the first. Without such a node
// nothing changes.
ZD_API void listc_replace(void *data, int idx, listc_t *list);

ZD_END_DECLS

#endif
