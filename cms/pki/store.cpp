// The store of a verify context: certificates and CRLs in order of
// addition, one reference held on each, looked up first-fit.
#include "cms/asn1/oid.h"
#include "cms/asn1/pubkey.h"
#include "cms/pki/internal.h"

namespace {

// Records are the same when their signature values are byte-identical;
// nothing else about them is compared.
template <typename Record>
bool HoldsSignature(const DorvexList &list, const DorvexAsnBits &signature) {
    for (int32_t i = 0; i < DrxListCount(list); ++i) {
        const auto *held = static_cast<const Record *>(list.items[i]);
        if (held != nullptr && DorvexCompareAsnOcts(&held->signature, &signature) == 0) {
            return true;
        }
    }
    return false;
}

// Adds a record unless its signature value is stored already; the store's
// reference is taken only once the record is in.
template <typename Record>
uint32_t AddRecord(DorvexList &list, Record *record, uint32_t duplicateCode) {
    if (HoldsSignature<Record>(list, record->signature)) {
        return duplicateCode;
    }
    uint32_t ret = DorvexListAdd(&list, record);
    if (ret != DORVEX_OK) {
        return ret;
    }
    ++record->refCount;
    return DORVEX_OK;
}

}  // namespace

uint32_t DorvexPkiInit(DorvexVrfCtx *ctx) {
    if (ctx == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    void *store = nullptr;
    uint32_t ret = DorvexMallocWith0(&store, sizeof(DorvexPkiStore));
    if (ret != DORVEX_OK) {
        return ret;
    }
    ctx->pki = static_cast<DorvexPkiStore *>(store);
    return DORVEX_OK;
}

void DorvexPkiUninit(DorvexVrfCtx *ctx) {
    if (ctx == nullptr || ctx->pki == nullptr) {
        return;
    }
    DorvexListFree(&ctx->pki->certs, DorvexX509FreeCertItem);
    DorvexListFree(&ctx->pki->crls, DorvexX509FreeCrlItem);
    DorvexFree(ctx->pki);
    ctx->pki = nullptr;
}

uint32_t DorvexPkiStoreAddCert(DorvexVrfCtx *ctx, DorvexX509Cert *cert) {
    if (ctx == nullptr || cert == nullptr || ctx->pki == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    return AddRecord(ctx->pki->certs, cert, DORVEX_ERR_CERT_EXISTS);
}

uint32_t DorvexPkiStoreAddCrl(DorvexVrfCtx *ctx, DorvexX509Crl *crl) {
    if (ctx == nullptr || crl == nullptr || ctx->pki == nullptr) {
        return DORVEX_ERR_PARAM;
    }
    return AddRecord(ctx->pki->crls, crl, DORVEX_ERR_CRL_EXISTS);
}

DorvexX509Cert *DorvexPkiFindCertByIssuerSn(const DorvexVrfCtx *ctx, const DorvexX509Name *issuer,
                                            const DorvexAsnBigint *serialNumber) {
    if (ctx == nullptr || issuer == nullptr || serialNumber == nullptr || issuer->count == 0 ||
        serialNumber->len == 0 || ctx->pki == nullptr) {
        return nullptr;
    }
    const DorvexList &certs = ctx->pki->certs;
    for (int32_t i = 0; i < DrxListCount(certs); ++i) {
        auto *cert = static_cast<DorvexX509Cert *>(certs.items[i]);
        if (cert != nullptr && DorvexCompareX509Name(&cert->certInfo.issuer, issuer) == 0 &&
            DorvexCompareAsnOcts(&cert->certInfo.serialNumber, serialNumber) == 0) {
            return cert;
        }
    }
    return nullptr;
}

namespace {

// Whether `cert` signed `crl`: subject is the CRL's issuer, cRLSign, and its
// key verifies the CRL's signature.
bool InternalSignedCrl(const DorvexX509Cert &cert, const DorvexX509Crl &crl) {
    if (DorvexCompareX509Name(&cert.certInfo.subject, &crl.crlInfo.issuer) != 0 ||
        (cert.certInfo.extensions.keyUsage & kDrxKuCrlSign) == 0) {
        return false;
    }
    uint32_t verdict = 0;
    const uint32_t ret =
        DorvexX509CertSignVerify(crl.tbsRaw.data, crl.tbsRaw.len, crl.signature.data,
                                 crl.signature.len, &cert, &crl.signatureAlgorithm, &verdict);
    return ret == DORVEX_OK && verdict == 1;
}

}  // namespace

// No basic-constraints check here: a CRL signer need only hold cRLSign, and
// its own path is verified by whoever uses the CRL. The store only grows at
// its end, so a remembered signer stays the first that fits.
DorvexX509Cert *DorvexPkiFindCrlIssuer(const DorvexVrfCtx *ctx, const DorvexX509Crl *crl) {
    if (ctx == nullptr || ctx->pki == nullptr || crl == nullptr) {
        return nullptr;
    }
    DorvexPkiStore &store = *ctx->pki;
    int32_t slot = -1;
    for (int32_t i = 0; i < DrxListCount(store.crls); ++i) {
        if (store.crls.items[i] == crl) {
            slot = i;
            break;
        }
    }
    if (slot >= 0 && store.crlSigner[slot] != nullptr) {
        return store.crlSigner[slot];
    }
    const int32_t from = slot >= 0 ? store.crlSignerTried[slot] : 0;
    const int32_t count = DrxListCount(store.certs);
    for (int32_t i = from < 0 ? 0 : from; i < count; ++i) {
        auto *cert = static_cast<DorvexX509Cert *>(store.certs.items[i]);
        if (cert != nullptr && InternalSignedCrl(*cert, *crl)) {
            if (slot >= 0) {
                store.crlSigner[slot] = cert;
            }
            return cert;
        }
    }
    if (slot >= 0) {
        store.crlSignerTried[slot] = count;
    }
    return nullptr;
}
