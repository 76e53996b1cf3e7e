// The list container and the PKI store: capacity, order, duplicates,
// reference counts and the two lookups.
#include <string>

#include "cms/pki/internal.h"
#include "tests/cms/test_pki_support.h"

namespace {

using namespace pki_test;

TEST(PkiList, AddFreeAndArguments) {
    DorvexList list{};
    int items[DORVEX_LIST_CAPACITY + 1] = {};
    for (int i = 0; i < DORVEX_LIST_CAPACITY; ++i) {
        ASSERT_EQ(DorvexListAdd(&list, &items[i]), 0u);
    }
    EXPECT_EQ(DorvexListAdd(&list, &items[DORVEX_LIST_CAPACITY]), DORVEX_ERR_LIST_FULL);
    EXPECT_EQ(list.count, DORVEX_LIST_CAPACITY);
    EXPECT_EQ(DorvexListAdd(nullptr, &items[0]), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexListAdd(&list, nullptr), DORVEX_ERR_PARAM);

    DorvexListFree(&list, nullptr);
    EXPECT_EQ(list.count, DORVEX_LIST_CAPACITY);
    static int released;
    released = 0;
    DorvexListFree(&list, [](void *item) { released += *static_cast<int *>(item) + 1; });
    EXPECT_EQ(released, DORVEX_LIST_CAPACITY);
    EXPECT_EQ(list.count, 0);
    EXPECT_EQ(list.items[0], &items[0]);  // slots are left as they were
}

TEST(PkiList, SortIsStableAndBestFirst) {
    struct Row {
        const char *name;
        std::vector<uint32_t> scores;
        std::vector<int> order;  // indexes into scores, expected result
    };
    const Row rows[] = {
        {"empty", {}, {}},
        {"one item", {0x60}, {0}},
        {"equal scores keep store order", {0x60, 0x60, 0x60}, {0, 1, 2}},
        {"lists-Q beats current", {0x60, 0xA0, 0x30, 0x60, 0xE0}, {4, 1, 0, 3, 2}},
        {"issuer relation last", {0x50, 0x70, 0x60}, {1, 2, 0}},
    };
    for (const Row &row : rows) {
        std::vector<DorvexCrlScore> records(row.scores.size());
        DorvexList list{};
        for (size_t i = 0; i < records.size(); ++i) {
            records[i].score = row.scores[i];
            ASSERT_EQ(DorvexListAdd(&list, &records[i]), 0u);
        }
        static int calls;
        calls = 0;
        auto compare = [](const void *a, const void *b) {
            ++calls;
            return InternalCrlScoreSortDesc(static_cast<const DorvexCrlScore *>(a),
                                            static_cast<const DorvexCrlScore *>(b));
        };
        ASSERT_EQ(DorvexListSort(&list, compare), 0u) << row.name;
        for (size_t i = 0; i < row.order.size(); ++i) {
            EXPECT_EQ(list.items[i], &records[static_cast<size_t>(row.order[i])]) << row.name;
        }
        if (records.size() < 2) {
            EXPECT_EQ(calls, 0) << row.name;
        }
    }
    DorvexList list{};
    EXPECT_EQ(DorvexListSort(&list, nullptr), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexListSort(nullptr, [](const void *, const void *) { return 0; }),
              DORVEX_ERR_PARAM);
}

Bytes SelfSignedDer(uint8_t serial) {
    testpki::CertSpec s = RootSpec("Root " + std::to_string(serial), "ca-2048");
    s.serial = {serial};
    return testpki::IssueCert(s).Der();
}

TEST(PkiStore, SixteenCertificatesAndCrls) {
    Store store;
    const Credential root = testpki::IssueCredential(RootSpec("Root"));
    auto crlNumbered = [&root](uint8_t number) {
        testpki::CrlSpec crl;
        crl.issuer = root;
        crl.crlNumber = Bytes{number};
        return testpki::MakeCrl(crl);
    };
    for (uint8_t i = 1; i <= DORVEX_LIST_CAPACITY; ++i) {
        EXPECT_EQ(store.Add(SelfSignedDer(i))->refCount, 2);
        EXPECT_EQ(store.AddCrl(crlNumbered(i))->refCount, 2);
    }
    DorvexX509Cert *extra = store.Decode(SelfSignedDer(17));
    EXPECT_EQ(DorvexPkiStoreAddCert(&store.ctx, extra), DORVEX_ERR_LIST_FULL);
    EXPECT_EQ(extra->refCount, 1);
    DorvexX509Crl *extraCrl = store.DecodeCrl(crlNumbered(17));
    EXPECT_EQ(DorvexPkiStoreAddCrl(&store.ctx, extraCrl), DORVEX_ERR_LIST_FULL);
    EXPECT_EQ(extraCrl->refCount, 1);
    // Store drops its references here; ~Store checks every count is back at 1.
}

TEST(PkiStore, DuplicatesByValueAndArguments) {
    Store store;
    const Bytes der = SelfSignedDer(1);
    DorvexX509Cert *first = store.Add(der);
    DorvexX509Cert *twin = store.Decode(der);  // another record, same signature
    EXPECT_EQ(DorvexPkiStoreAddCert(&store.ctx, twin), DORVEX_ERR_CERT_EXISTS);
    EXPECT_EQ(DorvexPkiStoreAddCert(&store.ctx, first), DORVEX_ERR_CERT_EXISTS);
    EXPECT_EQ(twin->refCount, 1);
    EXPECT_EQ(first->refCount, 2);

    const Bytes crlDer = Crl(testpki::IssueCredential(RootSpec("Root")));
    store.AddCrl(crlDer);
    DorvexX509Crl *crlTwin = store.DecodeCrl(crlDer);
    EXPECT_EQ(DorvexPkiStoreAddCrl(&store.ctx, crlTwin), DORVEX_ERR_CRL_EXISTS);
    EXPECT_EQ(crlTwin->refCount, 1);
    EXPECT_EQ(store.ctx.pki->certs.count, 1);
    EXPECT_EQ(store.ctx.pki->crls.count, 1);

    EXPECT_EQ(DorvexPkiStoreAddCert(nullptr, twin), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexPkiStoreAddCert(&store.ctx, nullptr), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexPkiStoreAddCrl(&store.ctx, nullptr), DORVEX_ERR_PARAM);
    EXPECT_EQ(DorvexPkiInit(nullptr), DORVEX_ERR_PARAM);
    DorvexVrfCtx bare{};
    EXPECT_EQ(DorvexPkiStoreAddCert(&bare, twin), DORVEX_ERR_PARAM);
    DorvexPkiUninit(&bare);
    DorvexPkiUninit(nullptr);
}

TEST(PkiStore, FindCertByIssuerSn) {
    Store store;
    const Credential root = testpki::IssueCredential(RootSpec("Root"));
    testpki::CertSpec leaf = LeafSpec("Leaf", root);
    leaf.serial = {0x7F, 0x01};
    DorvexX509Cert *first = store.Add(testpki::IssueCert(leaf).Der());
    leaf.subject = testpki::SimpleName({{"CN", "Leaf again"}});
    store.Add(testpki::IssueCert(leaf).Der());  // same issuer and serial, added later
    DorvexX509Cert *rootCert = store.Add(root);

    const DorvexX509Name &issuer = first->certInfo.issuer;
    const DorvexAsnBigint &serial = first->certInfo.serialNumber;
    const uint8_t longer[] = {0x00, 0x7F, 0x01};
    DorvexAsnBigint padded = serial;
    padded.data = longer;
    padded.len = sizeof(longer);
    DorvexAsnBigint empty = serial;
    empty.len = 0;
    const DorvexX509Name noRdns{};
    struct {
        const char *name;
        const DorvexX509Name *issuer;
        const DorvexAsnBigint *serial;
        DorvexX509Cert *expected;
    } const rows[] = {
        {"first added wins", &issuer, &serial, first},
        {"leading zero octet differs", &issuer, &padded, nullptr},
        {"empty serial", &issuer, &empty, nullptr},
        {"issuer without RDNs", &noRdns, &serial, nullptr},
        {"other issuer", &first->certInfo.subject, &serial, nullptr},
        {"root by its own name", &rootCert->certInfo.issuer, &rootCert->certInfo.serialNumber,
         rootCert},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(DorvexPkiFindCertByIssuerSn(&store.ctx, row.issuer, row.serial), row.expected)
            << row.name;
    }
    EXPECT_EQ(DorvexPkiFindCertByIssuerSn(nullptr, &issuer, &serial), nullptr);
}

TEST(PkiStore, FindCrlIssuerSkipsUnfitCandidates) {
    Store store;
    const Credential root = testpki::IssueCredential(RootSpec("Root"));
    testpki::CertSpec noCrlSign = CaSpec("CA", root);
    noCrlSign.keyUsage = testpki::KeyUsage::Of(testpki::ku::kKeyCertSign);
    testpki::CertSpec otherKey = CaSpec("CA", root, "other-2048");
    testpki::CertSpec noKeyUsage = CaSpec("CA", root);
    noKeyUsage.keyUsage.reset();
    const Credential signer = testpki::IssueCredential(CaSpec("CA", root));

    DorvexX509Crl *crl = store.AddCrl(Crl(signer));
    store.Add(testpki::IssueCert(noCrlSign).Der());
    store.Add(testpki::IssueCert(otherKey).Der());
    store.Add(testpki::IssueCert(noKeyUsage).Der());
    store.Add(root);
    EXPECT_EQ(DorvexPkiFindCrlIssuer(&store.ctx, crl), nullptr);
    DorvexX509Cert *expected = store.Add(signer);
    EXPECT_EQ(DorvexPkiFindCrlIssuer(&store.ctx, crl), expected);
    EXPECT_EQ(DorvexPkiFindCrlIssuer(&store.ctx, nullptr), nullptr);
}

}  // namespace
