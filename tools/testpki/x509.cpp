// Certificates and CRLs: fields and extensions as planned; OpenSSL assembles and signs.
#include "tools/testpki/internal.h"

namespace testpki {

using detail::Need;

namespace {

// Zero bits below the lowest set bit: a named bit list's unused bits in DER.
uint8_t UnusedBits(uint8_t last) {
    uint8_t unused = 0;
    while (last != 0 && ((last >> unused) & 1) == 0) {
        ++unused;
    }
    return unused;
}

// What X509_sign does, and by RSASSA-PSS when asked.
template <typename T, typename SignCtxFn>
void Sign(T *object, SignCtxFn signCtx, const Key &key, Digest digest, bool pss) {
    Owned<EVP_MD_CTX_free> ctx(TP_NEED(EVP_MD_CTX_new()));
    EVP_PKEY_CTX *pctx = nullptr;
    TP_NEED(EVP_DigestSignInit(ctx.get(), &pctx, detail::DigestMd(digest), nullptr, key.get()));
    if (pss) {
        detail::UsePss(pctx);
    }
    Need(signCtx(object, ctx.get()), "signing");
}

std::vector<RawExtension> CertExtensions(const CertSpec &plan, const Key &signer) {
    std::vector<RawExtension> exts;
    if (const auto &bc = plan.basicConstraints) {
        // SEQUENCE { cA BOOLEAN DEFAULT FALSE, pathLenConstraint INTEGER OPTIONAL }
        std::vector<Bytes> items;
        if (bc->ca) {
            items.push_back(der::Boolean(true));
        }
        if (bc->pathLen) {
            items.push_back(der::Integer(SerialFromU64(*bc->pathLen)));
        }
        exts.push_back({"basicConstraints", bc->critical, der::Seq(items)});
    }
    if (const auto &usage = plan.keyUsage) {
        Bytes bits{usage->unusedBits};
        bits.insert(bits.end(), usage->octets.begin(), usage->octets.end());
        exts.push_back({"keyUsage", true, der::Tlv(0x03, bits)});
    }
    if (const auto &eku = plan.extKeyUsage) {
        std::vector<Bytes> oids;
        for (const std::string &purpose : eku->purposes) {
            oids.push_back(der::Oid(purpose));
        }
        exts.push_back({"extendedKeyUsage", eku->critical, der::Seq(oids)});
    }
    if (plan.subjectKeyId) {
        exts.push_back({"subjectKeyIdentifier", false, der::OctetString(plan.subjectKey.KeyId())});
    }
    if (plan.authorityKeyId) {
        exts.push_back({"authorityKeyIdentifier", false, detail::AuthorityKeyId(signer)});
    }
    exts.insert(exts.end(), plan.extraExtensions.begin(), plan.extraExtensions.end());
    return exts;
}

}  // namespace

Bytes detail::AuthorityKeyId(const Key &key) {
    // SEQUENCE { keyIdentifier [0] IMPLICIT OCTET STRING OPTIONAL, ... }
    return der::Seq({der::Tlv(0x80, key.KeyId())});
}

KeyUsage KeyUsage::Of(uint8_t first) {
    return {{first}, UnusedBits(first)};
}

// Always two octets, as decipherOnly needs.
KeyUsage KeyUsage::Of(uint8_t first, uint8_t second) {
    return {{first, second}, UnusedBits(second)};
}

Cert IssueCert(const CertSpec &plan) {
    if (plan.issuer && (!plan.issuer->cert || !plan.issuer->key)) {
        throw Error("CertSpec.issuer needs both a certificate and a key");
    }
    const Key &signer = plan.issuer ? plan.issuer->key : plan.subjectKey;
    const std::vector<RawExtension> exts = CertExtensions(plan, signer);

    X509Ptr owned(TP_NEED(X509_new()));
    X509 *x = owned.get();
    // Version 1 leaves the [0] field out altogether.
    TP_NEED(X509_set_version(x, plan.version - 1));
    TP_NEED(X509_set_serialNumber(x, detail::MakeInteger(plan.serial).get()));
    auto subject = detail::MakeName(plan.subject);
    TP_NEED(X509_set_subject_name(x, subject.get()));
    // The issuer's name as given, else its subject, else self-issued.
    auto named = plan.issuerName ? detail::MakeName(*plan.issuerName) : nullptr;
    X509_NAME *issuer =
        plan.issuer ? X509_get_subject_name(plan.issuer->cert.get()) : subject.get();
    TP_NEED(X509_set_issuer_name(x, named ? named.get() : issuer));
    TP_NEED(X509_set1_notBefore(x, detail::MakeTime(plan.notBefore).get()));
    TP_NEED(X509_set1_notAfter(x, detail::MakeTime(plan.notAfter).get()));
    TP_NEED(X509_set_pubkey(x, plan.subjectKey.get()));
    for (const RawExtension &ext : exts) {
        // Copies, and does not look for an earlier one with this OID.
        TP_NEED(X509_add_ext(x, detail::MakeExtension(ext).get(), -1));
    }
    Sign(x, X509_sign_ctx, signer, plan.digest, plan.pss);
    Bytes der = detail::ToDer(x, i2d_X509);
    return Cert(std::move(owned), std::move(der));
}

Credential IssueCredential(const CertSpec &plan) {
    return {IssueCert(plan), plan.subjectKey};
}

Bytes SubjectDer(const Cert &cert) {
    return detail::ToDer(X509_get_subject_name(cert.get()), i2d_X509_NAME);
}

Bytes CrlIssuerPoint(const Bytes &crlIssuer) {
    // DistributionPoint ::= SEQUENCE { cRLIssuer [2] IMPLICIT GeneralNames }
    return der::Seq({der::Seq({der::Tlv(0xA2, der::Tlv(0xA4, crlIssuer))})});
}

// IssuingDistributionPoint: [0] distributionPoint, then [1], [2], [4], [5] flags.
static Bytes IssuingDistPointValue(const IssuingDistPoint &idp) {
    std::vector<Bytes> items;
    if (idp.uri) {
        // [0] (explicit CHOICE) fullName [0] GeneralNames { URI [6] }
        items.push_back(der::Tlv(0xA0, der::Tlv(0xA0, der::Tlv(0x86, detail::AsBytes(*idp.uri)))));
    }
    const std::pair<bool, uint8_t> flags[] = {{idp.onlyUserCerts, 0x81},
                                              {idp.onlyCaCerts, 0x82},
                                              {idp.indirectCrl, 0x84},
                                              {idp.onlyAttributeCerts, 0x85}};
    for (const auto &[set, tag] : flags) {
        if (set) {
            items.push_back(der::Tlv(tag, Bytes{0xFF}));
        }
    }
    return der::Seq(items);
}

Bytes MakeCrl(const CrlSpec &plan) {
    if (!plan.issuer.cert || !plan.issuer.key) {
        throw Error("CrlSpec.issuer needs both a certificate and a key");
    }
    X509CrlPtr owned(TP_NEED(X509_CRL_new()));
    X509_CRL *crl = owned.get();
    // A new CRL has no version field; setting one, even v1's 0, would write it.
    if (plan.version != 1) {
        TP_NEED(X509_CRL_set_version(crl, plan.version - 1));
    }
    TP_NEED(X509_CRL_set_issuer_name(crl, X509_get_subject_name(plan.issuer.cert.get())));
    TP_NEED(X509_CRL_set1_lastUpdate(crl, detail::MakeTime(plan.thisUpdate).get()));
    if (plan.nextUpdate) {
        TP_NEED(X509_CRL_set1_nextUpdate(crl, detail::MakeTime(*plan.nextUpdate).get()));
    }
    for (const RevokedEntry &entry : plan.revoked) {
        Owned<X509_REVOKED_free> rev(TP_NEED(X509_REVOKED_new()));
        TP_NEED(X509_REVOKED_set_serialNumber(rev.get(), detail::MakeInteger(entry.serial).get()));
        TP_NEED(X509_REVOKED_set_revocationDate(rev.get(), detail::MakeTime(entry.date).get()));
        std::vector<RawExtension> exts;
        if (entry.reason) {
            if (*entry.reason < 0) {
                throw Error("a CRL reason code cannot be negative");
            }
            // CRLReason ::= ENUMERATED
            const Bytes code = SerialFromU64(static_cast<uint64_t>(*entry.reason));
            exts.push_back({"CRLReason", false, der::Tlv(0x0A, code)});
        }
        if (entry.certificateIssuer) {
            // GeneralNames { directoryName [4] Name }
            const Bytes names = der::Seq({der::Tlv(0xA4, *entry.certificateIssuer)});
            exts.push_back({"2.5.29.29", true, names});
        }
        for (const RawExtension &ext : exts) {
            TP_NEED(X509_REVOKED_add_ext(rev.get(), detail::MakeExtension(ext).get(), -1));
        }
        // Appends; the list is not sorted on output.
        TP_NEED(X509_CRL_add0_revoked(crl, rev.get()));
        rev.release();
    }
    std::vector<RawExtension> exts;
    if (plan.crlNumber) {
        exts.push_back({"crlNumber", false, der::Integer(*plan.crlNumber)});
    }
    if (const auto &idp = plan.issuingDistPoint) {
        exts.push_back({"issuingDistributionPoint", true, IssuingDistPointValue(*idp)});
    }
    exts.insert(exts.end(), plan.extraExtensions.begin(), plan.extraExtensions.end());
    for (const RawExtension &ext : exts) {
        TP_NEED(X509_CRL_add_ext(crl, detail::MakeExtension(ext).get(), -1));
    }
    Sign(crl, X509_CRL_sign_ctx, plan.issuer.key, Digest::Sha256, plan.pss);
    return detail::ToDer(crl, i2d_X509_CRL);
}

}  // namespace testpki
