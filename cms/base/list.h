// DorvexList: the library's only collection, with its operations.
//
// At the bottom of the library because every layer fills one: decoded
// SignedData carries its certificates in one, the store its certificates and
// CRLs, the verify context its buffers and pending verifications.
#ifndef CMS_BASE_LIST_H
#define CMS_BASE_LIST_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Capacity of every DorvexList; there is no growth.
#define DORVEX_LIST_CAPACITY 16

// `count` items in `items[0..count)`; the list does not own its items
// (whoever empties it says how to free them). Embedded in its owner's record,
// empty when zeroed.
typedef struct DorvexList {
    int32_t count;
    void *items[DORVEX_LIST_CAPACITY];
} DorvexList;

// DorvexListAdd: appends `item`. DORVEX_ERR_PARAM for a null list or item,
// DORVEX_ERR_LIST_FULL when 16 items are held already (the list unchanged).
uint32_t DorvexListAdd(DorvexList *list, void *item);

// DorvexListFree: calls freeItem on every item from the first to the last and
// sets the count to 0; the slots keep their old pointers and the list itself
// is not released. Nothing happens when either argument is null.
void DorvexListFree(DorvexList *list, void (*freeItem)(void *));

// DorvexListSort: stable in-place sort; afterwards compare(item, successor)
// is never above 0. compare(a, b) > 0 means a must come after b.
// DORVEX_ERR_PARAM when either argument is null, else 0.
uint32_t DorvexListSort(DorvexList *list, int32_t (*compare)(const void *a, const void *b));

#ifdef __cplusplus
}

// Number of items in use, a count corrupted outside 0..16 clamped so that
// no walk leaves the slots.
inline int32_t DrxListCount(const DorvexList &list) {
    if (list.count < 0) {
        return 0;
    }
    return list.count > DORVEX_LIST_CAPACITY ? DORVEX_LIST_CAPACITY : list.count;
}
#endif

#endif  // CMS_BASE_LIST_H
