// Owning handles for the library's resources inside its .cpp files: each
// releases through the library's own free function on every exit path.
// The handle of each kind is declared beside the function that frees it
// (BufferPtr in adapt.h, CertPtr in x509.h, ...), so every layer can use
// the owners of the layers below it.
#ifndef CMS_BASE_OWNED_H
#define CMS_BASE_OWNED_H

#include <memory>

#include "cms/base/list.h"

namespace drx {

template <auto Free>
struct FreeWith {
    template <typename T>
    void operator()(T *p) const {
        Free(p);
    }
};

// A pointer released with Free.
template <typename T, auto Free>
using Owned = std::unique_ptr<T, FreeWith<Free>>;

// A list holding one reference on each item, all dropped with the list.
template <void (*FreeItem)(void *)>
struct OwnedList {
    OwnedList() = default;
    OwnedList(const OwnedList &) = delete;
    OwnedList &operator=(const OwnedList &) = delete;
    ~OwnedList() { DorvexListFree(&list, FreeItem); }

    DorvexList list{};
};

}  // namespace drx

#endif  // CMS_BASE_OWNED_H
