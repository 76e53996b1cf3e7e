// The list container and the PKI store: capacity, order, duplicates,
// reference counts and the two lookups.
#include <string>

#include "cms/pki/internal.h"
#include "tests/cms/test_pki_support.h"

namespace {

using namespace pki_test;

TEST(PkiList, AddFreeAndSort) {
    DorvexList list{};
    int items[DORVEX_LIST_CAPACITY + 1] = {};
    for (int i = 0; i < DORVEX_LIST_CAPACITY; ++i) {
        ASSERT_EQ(DorvexListAdd(&list, &items[i]), 0u);
    }
    EXPECT_EQ(DorvexListAdd(&list, &items[DORVEX_LIST_CAPACITY]), DORVEX_ERR_LIST_FULL);
    EXPECT_EQ(DorvexListAdd(nullptr, &items[0]), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexListAdd(&list, nullptr), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexListSort(&list, nullptr), DORVEX_ERR_PARAM);
    static int released;
    released = 0;
    DorvexListFree(&list, [](void *item) { released += *static_cast<int *>(item) + 1; });
    EXPECT_EQ(released * 100 + list.count, DORVEX_LIST_CAPACITY * 100);

    // A stable sort, highest first: order of addition among equals.
    const struct {
        std::vector<uint32_t> scores;
        std::vector<int> order;  // indexes into scores, expected result
    } rows[] = {
        {{}, {}},
        {{0x60, 0x60, 0x60}, {0, 1, 2}},
        {{0x60, 0xA0, 0x30, 0x60, 0xE0}, {4, 1, 0, 3, 2}},
        {{0x50, 0x70, 0x60}, {1, 2, 0}},
    };
    for (const auto &row : rows) {
        std::vector<uint32_t> records = row.scores;
        DorvexList scored{};
        for (size_t i = 0; i < records.size(); ++i) {
            ASSERT_EQ(DorvexListAdd(&scored, &records[i]), 0u);
        }
        ASSERT_EQ(DorvexListSort(&scored,
                                 [](const void *a, const void *b) {
                                     const uint32_t x = *static_cast<const uint32_t *>(a);
                                     const uint32_t y = *static_cast<const uint32_t *>(b);
                                     return x > y ? -1 : (x == y ? 0 : 1);
                                 }),
                  0u);
        for (size_t i = 0; i < row.order.size(); ++i) {
            EXPECT_EQ(scored.items[i], &records[static_cast<size_t>(row.order[i])]) << i;
        }
    }
}

Bytes SelfSignedDer(uint8_t serial) {
    CertSpec s = RootSpec("Root " + std::to_string(serial), "ca-2048");
    s.serial = {serial};
    return testpki::IssueCert(s).Der();
}

TEST(PkiStore, SixteenItemsDuplicatesAndReferences) {
    Store store;
    const Credential &root = StandardRoot();
    auto crlNumbered = [&root](uint8_t number) {
        testpki::CrlSpec crl;
        crl.issuer = root;
        crl.crlNumber = Bytes{number};
        return testpki::MakeCrl(crl);
    };
    const Bytes first = SelfSignedDer(1), firstCrl = crlNumbered(1);
    for (uint8_t i = 1; i <= DORVEX_LIST_CAPACITY; ++i) {
        EXPECT_EQ(store.Add(i == 1 ? first : SelfSignedDer(i))->refCount, 2);
        EXPECT_EQ(store.AddCrl(i == 1 ? firstCrl : crlNumbered(i))->refCount, 2);
    }
    // Another record with a stored signature value is a duplicate, even when full.
    DorvexX509Cert *twin = store.Decode(first);
    EXPECT_EQ(DorvexPkiStoreAddCert(&store.ctx, twin), DORVEX_ERR_CERT_EXISTS);
    DorvexX509Crl *crlTwin = store.DecodeCrl(firstCrl);
    EXPECT_EQ(DorvexPkiStoreAddCrl(&store.ctx, crlTwin), DORVEX_ERR_CRL_EXISTS);
    DorvexX509Cert *extra = store.Decode(SelfSignedDer(17));
    EXPECT_EQ(DorvexPkiStoreAddCert(&store.ctx, extra), DORVEX_ERR_LIST_FULL);
    DorvexX509Crl *extraCrl = store.DecodeCrl(crlNumbered(17));
    EXPECT_EQ(DorvexPkiStoreAddCrl(&store.ctx, extraCrl), DORVEX_ERR_LIST_FULL);
    EXPECT_EQ(twin->refCount + crlTwin->refCount + extra->refCount + extraCrl->refCount, 4);

    EXPECT_EQ(DorvexPkiStoreAddCert(nullptr, twin), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexPkiStoreAddCert(&store.ctx, nullptr), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexPkiStoreAddCrl(&store.ctx, nullptr), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexPkiInit(nullptr), DORVEX_ERR_PARAM);
    DorvexVrfCtx bare{};
    EXPECT_EQ(DorvexPkiStoreAddCert(&bare, twin), DORVEX_ERR_PARAM);
    DorvexPkiUninit(&bare);
    DorvexPkiUninit(nullptr);
    // ~Store checks that every count is back at 1 once the store lets go.
}

TEST(PkiStore, FindCertByIssuerSn) {
    Store store;
    const Credential &root = StandardRoot();
    CertSpec leaf = LeafSpec("Leaf", root);
    leaf.serial = {0x7F, 0x01};
    DorvexX509Cert *first = store.Add(testpki::IssueCert(leaf).Der());
    leaf.subject = testpki::SimpleName({{"CN", "Leaf again"}});
    store.Add(testpki::IssueCert(leaf).Der());  // same issuer and serial, added later
    DorvexX509Cert *rootCert = store.Add(root);

    const DorvexX509Name &issuer = first->certInfo.issuer;
    const DorvexAsnBigint &serial = first->certInfo.serialNumber;
    const uint8_t longer[] = {0x00, 0x7F, 0x01};
    DorvexAsnBigint padded = serial, empty = serial;
    padded.data = longer;
    padded.len = sizeof(longer);
    empty.len = 0;
    const DorvexX509Name noRdns{};
    const struct {
        const DorvexX509Name *issuer;
        const DorvexAsnBigint *serial;
        DorvexX509Cert *expected;
    } rows[] = {
        {&issuer, &serial, first},  // the first added wins
        {&issuer, &padded, nullptr},
        {&issuer, &empty, nullptr},
        {&noRdns, &serial, nullptr},
        {&first->certInfo.subject, &serial, nullptr},
        {&rootCert->certInfo.issuer, &rootCert->certInfo.serialNumber, rootCert},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(DorvexPkiFindCertByIssuerSn(&store.ctx, row.issuer, row.serial), row.expected)
            << (&row - rows);
    }
    EXPECT_EQ(DorvexPkiFindCertByIssuerSn(nullptr, &issuer, &serial), nullptr);
}

TEST(PkiStore, FindCrlIssuerSkipsUnfitCandidates) {
    Store store;
    const Credential &root = StandardRoot();
    CertSpec noCrlSign = CaSpec("CA", root), otherKey = CaSpec("CA", root, "other-2048");
    CertSpec noKeyUsage = CaSpec("CA", root);
    noCrlSign.keyUsage = testpki::KeyUsage::Of(testpki::ku::kKeyCertSign);
    noKeyUsage.keyUsage.reset();
    const Credential signer = testpki::IssueCredential(CaSpec("CA", root));
    DorvexX509Crl *crl = store.AddCrl(Crl(signer));
    for (const CertSpec *plan : {&noCrlSign, &otherKey, &noKeyUsage}) {
        store.Add(testpki::IssueCert(*plan).Der());
    }
    store.Add(root);
    EXPECT_EQ(DorvexPkiFindCrlIssuer(&store.ctx, crl), nullptr);
    DorvexX509Cert *expected = store.Add(signer);
    EXPECT_EQ(DorvexPkiFindCrlIssuer(&store.ctx, crl), expected);
    EXPECT_EQ(DorvexPkiFindCrlIssuer(&store.ctx, nullptr), nullptr);
}

}  // namespace
