// SignedData decoding of signatures made by OpenSSL at test time: what is
// kept of them, the structural limits (certificates, signers, signer
// identifier form) and hostile inputs.
#include "cms/asn1/pkcs7.h"

#include <openssl/cms.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/cms_fixture.h"
#include "tools/testpki/testpki.h"

namespace {

namespace tp = testpki;
using tp::Bytes;
using tp::der::Children;
using tp::der::Tlv;

Bytes Content(const DorvexAsnOcts &o) {
    return o.data == nullptr ? Bytes{} : Bytes(o.data, o.data + o.len);
}

Bytes Asn1Bytes(const ASN1_STRING *s) {
    return s == nullptr
               ? Bytes{}
               : Bytes(ASN1_STRING_get0_data(s), ASN1_STRING_get0_data(s) + ASN1_STRING_length(s));
}

const Bytes kContent = {'s', 'u', 'm', 's', '\n'};
constexpr char kIdData[] = "1.2.840.113549.1.7.1";

using vt_test::Pki;

// The package signature: leaf signer, leaf and CA certificates, a token.
Bytes Sign(void (*edit)(tp::SignSpec &) = nullptr) {
    tp::SignSpec plan;
    plan.signer = Pki().leaf;
    plan.certs = {Pki().leaf.cert, Pki().ca.cert};
    plan.timestamp.emplace().tsa = Pki().tsa;
    if (edit != nullptr) {
        edit(plan);
    }
    return tp::MakeSignedData(plan, kContent);
}

// Rebuilds a ContentInfo after `edit` changed the SignedData's components
// (version, digestAlgorithms, encapContentInfo, [certificates], [crls],
// signerInfos); with `signer`, the components of the one SignerInfo instead.
Bytes Edit(const std::function<void(std::vector<Bytes> &)> &edit, bool signer = false) {
    const std::vector<Bytes> outer = Children(Sign());
    std::vector<Bytes> parts = Children(Children(outer[1]).at(0));
    if (signer) {
        std::vector<Bytes> fields = Children(Children(parts.back()).at(0));
        edit(fields);
        parts.back() = Tlv(0x31, tp::der::Seq(fields));
    } else {
        edit(parts);
    }
    return tp::der::Seq({outer[0], Tlv(0xA0, tp::der::Seq(parts))});
}

// RAII over a decoded SignedData.
struct Decoded {
    DorvexPkcs7Content *record = nullptr;
    uint32_t consumed = 0;
    uint32_t ret = 0;
    explicit Decoded(const Bytes &der)
        : ret(DorvexPkcs7DecodeSigned(der.data(), der.size(), &record, &consumed)) {}
    ~Decoded() { DorvexPkcs7FreeSigned(record); }
};

// A decoded SignedData against OpenSSL's reading of the same DER (field by
// field it is the differential fuzz target's).
void ExpectLikeOpenssl(const Bytes &der, const DorvexPkcs7Content &ours) {
    const uint8_t *p = der.data();
    std::unique_ptr<CMS_ContentInfo, tp::Deleter<CMS_ContentInfo_free>> cms(
        d2i_CMS_ContentInfo(nullptr, &p, static_cast<long>(der.size())));
    ASSERT_NE(cms, nullptr);
    const DorvexPkcs7SignedData &sd = ours.signedData;
    ASN1_OCTET_STRING *const *content = CMS_get0_content(cms.get());
    // The [0] element is kept; its bytes end with the OCTET STRING's content.
    const Bytes inner = Content(sd.contentInfo.content), want = Asn1Bytes(*content);
    EXPECT_EQ(inner.empty(), *content == nullptr);
    EXPECT_TRUE(inner.empty() || (inner[0] == 0x04 && sd.contentInfo.content.tagClass == 2 &&
                                  Bytes(inner.end() - want.size(), inner.end()) == want));
    STACK_OF(X509) *certs = CMS_get1_certs(cms.get());
    ASSERT_EQ(sd.certList.count, certs == nullptr ? 0 : sk_X509_num(certs));
    ASSERT_EQ(sd.certificates.count, static_cast<uint32_t>(sd.certList.count));
    sk_X509_pop_free(certs, X509_free);
    for (int i = 0; i < sd.certList.count; ++i) {
        EXPECT_EQ(static_cast<const DorvexX509Cert *>(sd.certList.items[i])->refCount, 1);
    }
    EXPECT_EQ(sd.signerInfos.count,
              static_cast<uint32_t>(sk_CMS_SignerInfo_num(CMS_get0_SignerInfos(cms.get()))));
}

TEST(Pkcs7Signed, DecodesWhatOpensslReports) {
    using Plan = tp::SignSpec;
    const Bytes idData =
        tp::der::Seq({tp::der::Oid(kIdData), Tlv(0xA0, tp::der::OctetString(kContent))});
    Bytes truncated = Sign();
    truncated.pop_back();
    tp::CrlSpec crl;
    crl.issuer = Pki().ca;
    const Bytes crlDer = tp::MakeCrl(crl);
    const uint32_t kBad = DORVEX_ERR_PKCS7_DECODE;
    // clang-format off
    const struct {
        const char *name;
        Bytes der;
        uint32_t expected;
    } rows[] = {
        {"two certificates, signed attributes, token, SHA-256", Sign(), DORVEX_OK},
        {"no certificates", Sign([](Plan &s) { s.certs.clear(); }), DORVEX_OK},
        {"no signers", Sign([](Plan &s) { s.noSigner = true; s.timestamp.reset(); }), DORVEX_OK},
        {"a timestamp token on its own", tp::TimestampTokenOf(Sign()), DORVEX_OK},
        {"CRLs are stepped over",
         Edit([&](auto &parts) { parts.insert(parts.end() - 1, Tlv(0xA1, crlDer)); }), DORVEX_OK},
        {"embedded content", Edit([&](auto &parts) { parts[2] = idData; }), DORVEX_OK},
        {"three certificates", Sign([](Plan &s) { s.certs.push_back(Pki().tsa.cert); }), kBad},
        {"two signers", Edit([](auto &parts) {
             const Bytes one = Children(parts.back()).at(0);
             parts.back() = Tlv(0x31, tp::ConcatDer({one, one})); }), kBad},
        {"signer named by subject key identifier", Edit([](auto &signer) {
             signer[0] = tp::der::Integer(Bytes{3});
             signer[1] = Tlv(0x80, Pki().leaf.key.KeyId()); }, true), kBad},
        {"truncated by one byte", truncated, kBad},
        {"garbage", Bytes{'n', 'o', 't', ' ', 'D', 'E', 'R'}, kBad},
        {"id-data content instead of SignedData", idData, kBad},
    };
    // clang-format on
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Decoded decoded(row.der);
        ASSERT_EQ(decoded.ret, row.expected);
        EXPECT_EQ(decoded.record == nullptr, row.expected != DORVEX_OK);
        if (row.expected == DORVEX_OK) {
            EXPECT_EQ(decoded.consumed, row.der.size());
            ExpectLikeOpenssl(row.der, *decoded.record);
        }
    }
}

}  // namespace
