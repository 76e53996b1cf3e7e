// Certificates: every field and extension value is written from the CertSpec's
// raw form; OpenSSL only assembles and signs.
#include "tools/testpki/internal.h"

#include <openssl/objects.h>

namespace testpki {

using detail::Check;

namespace {

void AddExtension(X509 *x509, const std::string &oid, bool critical, const Bytes &value) {
    detail::ExtensionPtr ext = detail::MakeExtension(oid, critical, value);
    // X509_add_ext copies and does not look for an earlier one with this OID.
    Check(X509_add_ext(x509, ext.get(), -1) == 1, "X509_add_ext " + oid);
}

// BasicConstraints ::= SEQUENCE { cA BOOLEAN DEFAULT FALSE,
//                                 pathLenConstraint INTEGER (0..MAX) OPTIONAL }
Bytes BasicConstraintsValue(const BasicConstraints &bc) {
    std::vector<Bytes> items;
    if (bc.ca) {
        items.push_back(der::Boolean(true));
    }
    if (bc.pathLen) {
        items.push_back(der::Integer(SerialFromU64(*bc.pathLen)));
    }
    return der::Seq(items);
}

// KeyUsage ::= BIT STRING
Bytes KeyUsageValue(const KeyUsage &usage) {
    Bytes content{usage.unusedBits};
    content.insert(content.end(), usage.octets.begin(), usage.octets.end());
    return der::Tlv(0x03, content);
}

// ExtKeyUsageSyntax ::= SEQUENCE SIZE (1..MAX) OF KeyPurposeId
Bytes ExtKeyUsageValue(const ExtKeyUsage &eku) {
    std::vector<Bytes> oids;
    for (const std::string &purpose : eku.purposes) {
        oids.push_back(der::Oid(purpose));
    }
    return der::Seq(oids);
}

// AuthorityKeyIdentifier ::= SEQUENCE { keyIdentifier [0] IMPLICIT OCTET STRING OPTIONAL, ... }
Bytes AuthorityKeyIdValue(const Key &signer) {
    return der::Seq({der::Tlv(0x80, signer.KeyId())});
}

void AddExtensions(X509 *x509, const CertSpec &plan, const Key &signer) {
    if (plan.basicConstraints) {
        AddExtension(x509, "basicConstraints", plan.basicConstraints->critical,
                     BasicConstraintsValue(*plan.basicConstraints));
    }
    if (plan.keyUsage) {
        AddExtension(x509, "keyUsage", plan.keyUsage->critical, KeyUsageValue(*plan.keyUsage));
    }
    if (plan.extKeyUsage) {
        AddExtension(x509, "extendedKeyUsage", plan.extKeyUsage->critical,
                     ExtKeyUsageValue(*plan.extKeyUsage));
    }
    if (plan.subjectKeyId) {
        AddExtension(x509, "subjectKeyIdentifier", false,
                     der::OctetString(plan.subjectKey.KeyId()));
    }
    if (plan.authorityKeyId) {
        AddExtension(x509, "authorityKeyIdentifier", false, AuthorityKeyIdValue(signer));
    }
    for (const RawExtension &ext : plan.extraExtensions) {
        AddExtension(x509, ext.oid, ext.critical, ext.value);
    }
}

bool HasExtensions(const CertSpec &plan) {
    return plan.basicConstraints || plan.keyUsage || plan.extKeyUsage || plan.subjectKeyId ||
           plan.authorityKeyId || !plan.extraExtensions.empty();
}

}  // namespace

KeyUsage KeyUsage::Of(uint8_t first) {
    // X.690 11.2.2: trailing zero bits of a named bit list are dropped, so the
    // unused count is the number of zero bits below the lowest set bit.
    uint8_t unused = 0;
    if (first != 0) {
        while (((first >> unused) & 1) == 0) {
            ++unused;
        }
    }
    return {{first}, unused, true};
}

KeyUsage KeyUsage::Of(uint8_t first, uint8_t second) {
    // decipherOnly is bit 8, the top bit of the second octet: 7 unused bits.
    uint8_t unused = 0;
    if (second != 0) {
        while (((second >> unused) & 1) == 0) {
            ++unused;
        }
    }
    return {{first, second}, unused, true};
}

Cert IssueCert(const CertSpec &plan) {
    if (!plan.subjectKey) {
        throw Error("CertSpec.subjectKey is required");
    }
    if (plan.version < 1 || plan.version > 3) {
        throw Error("certificate version must be 1, 2 or 3");
    }
    if (plan.version == 1 && HasExtensions(plan)) {
        // A version 1 certificate has no extensions field to put them in.
        throw Error("a version 1 certificate cannot carry extensions");
    }
    if (plan.issuer && (!plan.issuer->cert || !plan.issuer->key)) {
        throw Error("CertSpec.issuer needs both a certificate and a key");
    }
    const Key &signer = plan.issuer ? plan.issuer->key : plan.subjectKey;

    X509Ptr x509(X509_new());
    Check(x509 != nullptr, "X509_new");
    // Version 1 leaves the [0] field out altogether.
    Check(X509_set_version(x509.get(), plan.version - 1) == 1, "X509_set_version");
    Check(X509_set_serialNumber(x509.get(), detail::MakeInteger(plan.serial).get()) == 1,
          "X509_set_serialNumber");

    detail::X509NamePtr subject = detail::MakeName(plan.subject);
    Check(X509_set_subject_name(x509.get(), subject.get()) == 1, "X509_set_subject_name");
    if (plan.issuerName) {
        Check(X509_set_issuer_name(x509.get(), detail::MakeName(*plan.issuerName).get()) == 1,
              "X509_set_issuer_name");
    } else if (plan.issuer) {
        Check(X509_set_issuer_name(x509.get(), X509_get_subject_name(plan.issuer->cert.get())) == 1,
              "X509_set_issuer_name");
    } else {
        Check(X509_set_issuer_name(x509.get(), subject.get()) == 1, "X509_set_issuer_name");
    }

    Check(X509_set1_notBefore(x509.get(), detail::MakeTime(plan.notBefore).get()) == 1,
          "X509_set1_notBefore");
    Check(X509_set1_notAfter(x509.get(), detail::MakeTime(plan.notAfter).get()) == 1,
          "X509_set1_notAfter");
    Check(X509_set_pubkey(x509.get(), plan.subjectKey.get()) == 1, "X509_set_pubkey");
    AddExtensions(x509.get(), plan, signer);

    detail::SignX509(x509.get(), signer, plan.digest, plan.pss);
    unsigned char *out = nullptr;
    int len = i2d_X509(x509.get(), &out);
    Check(len > 0, "i2d_X509");
    Bytes der(out, out + len);
    OPENSSL_free(out);
    return Cert(std::move(x509), std::move(der));
}

Credential IssueCredential(const CertSpec &plan) {
    return {IssueCert(plan), plan.subjectKey};
}

}  // namespace testpki
