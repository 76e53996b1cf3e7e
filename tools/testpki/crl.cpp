// CRLs: revoked entries in the given order, times and serials as given.
#include "tools/testpki/internal.h"

namespace testpki {

using detail::Check;

namespace {

using RevokedPtr = std::unique_ptr<X509_REVOKED, Deleter<X509_REVOKED_free>>;

// CRLReason ::= ENUMERATED
Bytes ReasonValue(int reason) {
    if (reason < 0) {
        throw Error("a CRL reason code cannot be negative");
    }
    return der::Tlv(0x0A, SerialFromU64(static_cast<uint64_t>(reason)));
}

// IssuingDistributionPoint ::= SEQUENCE {
//   distributionPoint          [0] DistributionPointName OPTIONAL,
//   onlyContainsUserCerts      [1] BOOLEAN DEFAULT FALSE,
//   onlyContainsCACerts        [2] BOOLEAN DEFAULT FALSE,
//   onlySomeReasons            [3] ReasonFlags OPTIONAL,
//   indirectCRL                [4] BOOLEAN DEFAULT FALSE,
//   onlyContainsAttributeCerts [5] BOOLEAN DEFAULT FALSE }
// DistributionPointName ::= CHOICE { fullName [0] GeneralNames, ... }
Bytes IssuingDistPointValue(const IssuingDistPoint &idp) {
    static constexpr uint8_t kTrue[] = {0xFF};
    std::vector<Bytes> items;
    if (idp.uri) {
        // uniformResourceIdentifier [6] IA5String; the CHOICE under [0] is
        // explicitly tagged, fullName implicitly.
        Bytes uri = der::Tlv(
            0x86, std::span(reinterpret_cast<const uint8_t *>(idp.uri->data()), idp.uri->size()));
        items.push_back(der::Tlv(0xA0, der::Tlv(0xA0, uri)));
    }
    const std::pair<bool, uint8_t> flags[] = {{idp.onlyUserCerts, 0x81},
                                              {idp.onlyCaCerts, 0x82},
                                              {idp.indirectCrl, 0x84},
                                              {idp.onlyAttributeCerts, 0x85}};
    for (const auto &[set, tag] : flags) {
        if (set) {
            items.push_back(der::Tlv(tag, kTrue));
        }
    }
    return der::Seq(items);
}

void AddCrlExtension(X509_CRL *crl, const std::string &oid, bool critical, const Bytes &value) {
    detail::ExtensionPtr ext = detail::MakeExtension(oid, critical, value);
    Check(X509_CRL_add_ext(crl, ext.get(), -1) == 1, "X509_CRL_add_ext " + oid);
}

RevokedPtr MakeRevoked(const RevokedEntry &entry) {
    RevokedPtr rev(X509_REVOKED_new());
    Check(rev != nullptr, "X509_REVOKED_new");
    Check(X509_REVOKED_set_serialNumber(rev.get(), detail::MakeInteger(entry.serial).get()) == 1,
          "X509_REVOKED_set_serialNumber");
    Check(X509_REVOKED_set_revocationDate(rev.get(), detail::MakeTime(entry.date).get()) == 1,
          "X509_REVOKED_set_revocationDate");
    if (entry.reason) {
        detail::ExtensionPtr ext =
            detail::MakeExtension("CRLReason", false, ReasonValue(*entry.reason));
        Check(X509_REVOKED_add_ext(rev.get(), ext.get(), -1) == 1, "X509_REVOKED_add_ext");
    }
    if (entry.certificateIssuer) {
        // GeneralNames { directoryName [4] Name }
        const Bytes names = der::Seq({der::Tlv(0xA4, *entry.certificateIssuer)});
        detail::ExtensionPtr ext = detail::MakeExtension("2.5.29.29", true, names);
        Check(X509_REVOKED_add_ext(rev.get(), ext.get(), -1) == 1, "X509_REVOKED_add_ext");
    }
    return rev;
}

}  // namespace

Bytes MakeCrl(const CrlSpec &plan) {
    if (!plan.issuer.cert || !plan.issuer.key) {
        throw Error("CrlSpec.issuer needs both a certificate and a key");
    }
    if (plan.version != 1 && plan.version != 2) {
        throw Error("CRL version must be 1 or 2");
    }
    X509CrlPtr crl(X509_CRL_new());
    Check(crl != nullptr, "X509_CRL_new");
    // A new CRL has no version field; setting one, even v1's 0, would write it.
    if (plan.version == 2) {
        Check(X509_CRL_set_version(crl.get(), 1) == 1, "X509_CRL_set_version");
    }
    if (plan.issuerName) {
        Check(X509_CRL_set_issuer_name(crl.get(), detail::MakeName(*plan.issuerName).get()) == 1,
              "X509_CRL_set_issuer_name");
    } else {
        Check(
            X509_CRL_set_issuer_name(crl.get(), X509_get_subject_name(plan.issuer.cert.get())) == 1,
            "X509_CRL_set_issuer_name");
    }
    Check(X509_CRL_set1_lastUpdate(crl.get(), detail::MakeTime(plan.thisUpdate).get()) == 1,
          "X509_CRL_set1_lastUpdate");
    if (plan.nextUpdate) {
        Check(X509_CRL_set1_nextUpdate(crl.get(), detail::MakeTime(*plan.nextUpdate).get()) == 1,
              "X509_CRL_set1_nextUpdate");
    }
    for (const RevokedEntry &entry : plan.revoked) {
        RevokedPtr rev = MakeRevoked(entry);
        // Appends; the list is not sorted on output.
        Check(X509_CRL_add0_revoked(crl.get(), rev.get()) == 1, "X509_CRL_add0_revoked");
        rev.release();
    }
    if (plan.crlNumber) {
        AddCrlExtension(crl.get(), "crlNumber", false, der::Integer(*plan.crlNumber));
    }
    if (plan.issuingDistPoint) {
        AddCrlExtension(crl.get(), "issuingDistributionPoint", plan.issuingDistPoint->critical,
                        IssuingDistPointValue(*plan.issuingDistPoint));
    }
    for (const RawExtension &ext : plan.extraExtensions) {
        AddCrlExtension(crl.get(), ext.oid, ext.critical, ext.value);
    }

    detail::SignCrl(crl.get(), plan.issuer.key, plan.digest, plan.pss);
    unsigned char *out = nullptr;
    int len = i2d_X509_CRL(crl.get(), &out);
    Check(len > 0, "i2d_X509_CRL");
    Bytes der(out, out + len);
    OPENSSL_free(out);
    return der;
}

}  // namespace testpki

namespace testpki {

Bytes SubjectDer(const Cert &cert) {
    unsigned char *out = nullptr;
    const int len = i2d_X509_NAME(X509_get_subject_name(cert.get()), &out);
    Check(len > 0, "i2d_X509_NAME");
    Bytes der(out, out + len);
    OPENSSL_free(out);
    return der;
}

Bytes CrlIssuerPoint(const Bytes &crlIssuer) {
    // DistributionPoint ::= SEQUENCE { cRLIssuer [2] IMPLICIT GeneralNames }
    return der::Seq({der::Seq({der::Tlv(0xA2, der::Tlv(0xA4, crlIssuer))})});
}

}  // namespace testpki
