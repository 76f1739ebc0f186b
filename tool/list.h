/* A circular doubly linked list threaded through its records, with a sentinel head. */
#pragma once

#include <stddef.h>

struct list_head {
    struct list_head *next;
    struct list_head *prev;
};

#define LIST_HEAD_INIT(name) \
    {                        \
        &(name), &(name)     \
    }

/* The record that holds the link `member`. */
#define list_entry(ptr, type, member) \
    (reinterpret_cast<type *>(reinterpret_cast<char *>(ptr) - offsetof(type, member)))

#define list_for_each(pos, head) for ((pos) = (head)->next; (pos) != (head); (pos) = (pos)->next)

static inline bool list_empty(const struct list_head *head)
{
    return head->next == head;
}

static inline void list_add_tail(struct list_head *item, struct list_head *head)
{
    item->prev = head->prev;
    item->next = head;
    head->prev->next = item;
    head->prev = item;
}

static inline void list_del(struct list_head *item)
{
    item->prev->next = item->next;
    item->next->prev = item->prev;
    item->next = item->prev = item;
}
