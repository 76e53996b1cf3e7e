// DorvexList: the library's only collection, as a record.
//
// Defined at the bottom of the library because decoded SignedData carries its
// certificates in one; the list operations belong to the PKI store.
#ifndef CMS_ASN1_LIST_H
#define CMS_ASN1_LIST_H

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

#ifdef __cplusplus
}
#endif

#endif  // CMS_ASN1_LIST_H
