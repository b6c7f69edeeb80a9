/* SPDX-License-Identifier: MIT */
/**
 * @file
 * self_list: an intrusive, circular, doubly linked list.
 *
 * A list is one list_head that serves as the head, plus the nodes built into the records that
 * belong to it; an empty list is a head whose links point to itself. Nothing is allocated, and
 * every operation but a walk takes constant time. The smallest use:
 *
 *     struct job { list_head node; int number; };       // the node first: its address is the job's
 *     list_head jobs = LIST_HEAD_INIT(jobs);
 *     list_add_tail(&j->node, &jobs);
 *
 * Threads: there is no lock. Threads that share a list must lock it themselves. The records belong
 * to the caller.
 *
 * During a walk with list_for_each_safe() only the current node may be unlinked and freed. A node
 * is in one list at a time.
 *
 * Every program that links the library defines gLogLevl: see common/self_log.h.
 *
 * A complete program, and what it prints:
 * @include self_list.c
 * @verbinclude self_list.out
 */
#ifndef KELVARA_COMMON_SELF_LIST_H
#define KELVARA_COMMON_SELF_LIST_H

#ifdef __cplusplus
extern "C" {
#endif

/** A node, or the head of a list. */
typedef struct list_head {
    struct list_head *next; /**< the following node; of the last one, the head */
    struct list_head *prev; /**< the preceding node; of the first one, the head */
} list_head;

/** Initialises the head `name` as an empty list. */
#define LIST_HEAD_INIT(name)                                                                       \
    {                                                                                              \
        &(name), &(name)                                                                           \
    }

/** Links newitem between the adjacent nodes prev and next. */
static inline void __list_add(list_head *newitem, list_head *prev, list_head *next)
{
    next->prev = newitem;
    newitem->next = next;
    newitem->prev = prev;
    prev->next = newitem;
}

/** Appends newitem at the end of the list. */
static inline void list_add_tail(list_head *newitem, list_head *head)
{
    __list_add(newitem, head->prev, head);
}

/** Makes prev and next adjacent, which drops all nodes between them. */
static inline void __list_del(list_head *prev, list_head *next)
{
    next->prev = prev;
    prev->next = next;
}

/** Takes entry out of its list and points its links at itself; idempotent. */
static inline void list_del_init(list_head *entry)
{
    __list_del(entry->prev, entry->next);
    entry->next = entry;
    entry->prev = entry;
}

/** Whether the list has no nodes.
 * @return 1 when the list has no nodes, otherwise 0 */
static inline int list_empty(const list_head *head)
{
    return head->next == head;
}

/** Walks forward from the first node. pos is the current node. ahead is the following one, loaded
 * before the body runs, so the body may unlink and free the current node. Both are list_head
 * pointers of the caller. */
#define list_for_each_safe(pos, ahead, head)                                                       \
    for ((pos) = (head)->next, (ahead) = (pos)->next; (pos) != (head);                             \
         (pos) = (ahead), (ahead) = (pos)->next)

#ifdef __cplusplus
}
#endif

#endif
