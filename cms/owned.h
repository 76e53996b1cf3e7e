// Owning handles for the library's records inside its .cpp files: each one
// releases through the library's own free function on every exit path.
#ifndef CMS_OWNED_H
#define CMS_OWNED_H

#include <memory>

#include "cms/adapt/adapt.h"
#include "cms/adapt/provider.h"
#include "cms/asn1/pkcs7.h"
#include "cms/asn1/x509.h"
#include "cms/internal.h"

namespace drx {

template <auto Free>
struct FreeWith {
    template <typename T>
    void operator()(T *p) const {
        Free(p);
    }
};

using BufferPtr = std::unique_ptr<uint8_t, FreeWith<DorvexFree>>;
using CertPtr = std::unique_ptr<DorvexX509Cert, FreeWith<DorvexX509FreeCert>>;
using CrlPtr = std::unique_ptr<DorvexX509Crl, FreeWith<DorvexX509FreeCrl>>;
using SignedPtr = std::unique_ptr<DorvexPkcs7Content, FreeWith<DorvexPkcs7FreeSigned>>;
using MdInfoPtr = std::unique_ptr<DorvexMdInfo, FreeWith<InternalFreeMdInfo>>;
using MdCtxPtr = std::unique_ptr<DorvexMdCtx, FreeWith<DorvexMdDestoryCtx>>;
using VerifyCtxPtr = std::unique_ptr<DorvexCryptoVerifyCtx, FreeWith<DorvexCryptoVerifyDestroyCtx>>;

}  // namespace drx

#endif  // CMS_OWNED_H
