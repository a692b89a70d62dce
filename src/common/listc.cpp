#include "common/listc.h"

#include "client/common/client_assert.h"

namespace {

listc_t *node_of(list_link_t *link) {
    return reinterpret_cast<listc_t *>(link);
}

listc_t *new_node(void *data, allocator_t *alloc) {
    listc_t *const node =
        static_cast<listc_t *>(zd_malloc(alloc, sizeof(listc_t), "listc", __LINE__));
    node->data = data;
    return node;
}

// Calls visit(node) for the nodes that are on the list now: it may free the node that it is given
// and append to the list.
template <class Visit>
void visit_nodes(const listc_t *head, Visit visit) {
    const list_link_t *const last = head->link.prev;
    list_link_t *link = head->link.next;
    for (bool more = !list_is_empty(&head->link); more;) {
        list_link_t *const next = link->next;
        more = link != last;
        visit(node_of(link));
        link = next;
    }
}

} // namespace

listc_t *listc_new(allocator_t *alloc) {
    listc_t *const head = new_node(nullptr, alloc);
    list_init(&head->link);
    return head;
}

void listc_add(void *data, listc_t *head, allocator_t *alloc) {
    ZD_ASSERT("listc", head != NULL);
    list_add_head(&head->link, &new_node(data, alloc)->link);
}

void listc_add_tail(void *data, listc_t *head, allocator_t *alloc) {
    ZD_ASSERT("listc", head != NULL);
    list_add_tail(&head->link, &new_node(data, alloc)->link);
}

void listc_free_ele(listc_t *pos, allocator_t *alloc) {
    ZD_ASSERT("listc", pos != NULL);
    list_unlink(&pos->link);
    zd_free(alloc, pos, "listc", __LINE__);
}

void listc_free_ele_with_data(listc_t *pos, allocator_t *alloc) {
    ZD_ASSERT("listc", pos != NULL);
    ZD_ASSERT("listc", pos->data != NULL);
    zd_free(alloc, pos->data, "listc", __LINE__);
    listc_free_ele(pos, alloc);
}

void listc_clear(listc_t *head, allocator_t *alloc) {
    ZD_ASSERT("listc", head != NULL);
    visit_nodes(head, [alloc](listc_t *node) { listc_free_ele(node, alloc); });
}

void listc_clear_with_data(listc_t *head, allocator_t *alloc) {
    ZD_ASSERT("listc", head != NULL);
    visit_nodes(head, [alloc](listc_t *node) { listc_free_ele_with_data(node, alloc); });
}

void listc_free(listc_t *head, allocator_t *alloc) {
    listc_clear(head, alloc);
    zd_free(alloc, head, "listc", __LINE__);
}

listc_t *listc_find(const void *data, const listc_t *head) {
    ZD_ASSERT("listc", head != NULL);
    list_for_each(link, &head->link) {
        listc_t *const node = node_of(link);
        if (node->data == data)
            return node;
    }
    return nullptr;
}

int listc_find_idx(const void *data, const listc_t *head) {
    ZD_ASSERT("listc", head != NULL);
    int idx = 0;
    list_for_each(link, &head->link) {
        if (node_of(link)->data == data)
            return idx;
        idx++;
    }
    return -1;
}

listc_t *listc_copy(const listc_t *src, allocator_t *alloc) {
    ZD_ASSERT("listc", src != NULL);
    return listc_copy_to(src, listc_new(alloc), alloc);
}

listc_t *listc_copy_to(const listc_t *src, listc_t *dest, allocator_t *alloc) {
    ZD_ASSERT("listc", src != NULL);
    visit_nodes(src, [=](const listc_t *node) { listc_add_tail(node->data, dest, alloc); });
    return dest;
}

listc_t *listc_union(const listc_t *list1, const listc_t *list2, allocator_t *alloc) {
    ZD_ASSERT("listc", list1 != NULL);
    ZD_ASSERT("listc", list2 != NULL);
    return listc_union_to(list1, list2, listc_new(alloc), alloc);
}

listc_t *listc_union_to(const listc_t *list1, const listc_t *list2, listc_t *dest,
                        allocator_t *alloc) {
    ZD_ASSERT("listc", list1 != NULL);
    ZD_ASSERT("listc", list2 != NULL);
    ZD_ASSERT("listc", dest != NULL);
    listc_copy_to(list1, dest, alloc);
    visit_nodes(list2, [=](const listc_t *node) {
        if (listc_find(node->data, list1) == nullptr)
            listc_add_tail(node->data, dest, alloc);
    });
    return dest;
}

listc_t *listc_intersection(const listc_t *list1, const listc_t *list2, allocator_t *alloc) {
    listc_t *const dest = listc_new(alloc);
    listc_intersection_to(list1, list2, dest, alloc);
    return dest;
}

void listc_intersection_to(const listc_t *list1, const listc_t *list2, listc_t *dest,
                           allocator_t *alloc) {
    visit_nodes(list1, [=](const listc_t *node) {
        const listc_t *const found = listc_find(node->data, list2);
        if (found != nullptr)
            listc_add_tail(found->data, dest, alloc);
    });
}

listc_t *listc_minus(const listc_t *list1, const listc_t *list2, allocator_t *alloc) {
    return listc_minus_from(listc_copy(list1, alloc), list2, alloc);
}

listc_t *listc_minus_from(listc_t *list1, const listc_t *list2, allocator_t *alloc) {
    visit_nodes(list2, [=](const listc_t *node) {
        listc_t *const found = listc_find(node->data, list1);
        if (found != nullptr)
            listc_free_ele(found, alloc);
    });
    return list1;
}

uchar listc_is_subset(const listc_t *sub, const listc_t *head) {
    ZD_ASSERT("listc", sub != NULL);
    ZD_ASSERT("listc", head != NULL);
    list_for_each(link, &sub->link) {
        if (listc_find(node_of(link)->data, head) == nullptr)
            return 0;
    }
    return 1;
}

uchar listc_is_overlap(const listc_t *list1, const listc_t *list2) {
    list_for_each(link, &list1->link) {
        if (listc_find(node_of(link)->data, list2) != nullptr)
            return 1;
    }
    return 0;
}

void listc_replace(void *data, int idx, listc_t *list) {
    ZD_ASSERT("listc", list != NULL);
    list_link_t *link = list->link.next;
    for (int step = 0; step < idx && link != &list->link; step++)
        link = link->next;
    if (link != &list->link)
        node_of(link)->data = data;
}
