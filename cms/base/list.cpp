// DorvexList: count plus 16 slots, no growth, no ownership.
#include "cms/base/list.h"

#include <utility>

#include "cms/base/dorvex_errno.h"

uint32_t DorvexListAdd(DorvexList *list, void *item) {
    if (list == nullptr || item == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    // A negative count can only come from a damaged record; writing below
    // the first slot is never right.
    if (list->count < 0) {
        return DORVEX_ERR_PARAM;
    }
    if (list->count >= DORVEX_LIST_CAPACITY) {
        return DORVEX_ERR_LIST_FULL;
    }
    list->items[list->count] = item;
    ++list->count;
    return DORVEX_OK;
}

void DorvexListFree(DorvexList *list, void (*freeItem)(void *)) {
    if (list == nullptr || freeItem == nullptr) {
        return;
    }
    // The count is read again before every step: a release function may
    // itself shorten the list.
    for (int32_t i = 0; i < DrxListCount(*list); ++i) {
        freeItem(list->items[i]);
    }
    list->count = 0;
}

// Bubble sort from the back: each pass carries the item that belongs first
// among the unsorted ones to the front, and a pass without a swap ends it.
// Only strictly "after" answers swap, which keeps equal items in order.
uint32_t DorvexListSort(DorvexList *list, int32_t (*compare)(const void *a, const void *b)) {
    if (list == nullptr || compare == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    int32_t count = DrxListCount(*list);
    for (int32_t pass = 0; count - 2 >= pass; ++pass) {
        bool swapped = false;
        for (int32_t j = count - 2; j >= pass; --j) {
            if (compare(list->items[j], list->items[j + 1]) > 0) {
                std::swap(list->items[j], list->items[j + 1]);
                swapped = true;
            }
        }
        count = DrxListCount(*list);
        if (!swapped) {
            break;
        }
    }
    return DORVEX_OK;
}
