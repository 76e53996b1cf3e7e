// The differential path target's pool: one hierarchy, a case for each rule.
#include "tools/testpki/internal.h"

#include <functional>

namespace testpki {

namespace {

struct PoolWriter {
    // Key identifiers both ways make OpenSSL pick the same issuer among
    // certificates of one name. key: a test key, or "@BITS" for a new RSA key.
    Credential Cert(const std::string &name, const Credential *issuer, const std::string &key,
                    const std::string &cn, Bytes serial, bool ca,
                    const std::function<void(CertSpec &)> &change = {}) {
        CertSpec s;
        s.subjectKey =
            key[0] == '@' ? Key::GenerateRsa(std::stoi(key.substr(1))) : LoadTestKey(key, keyDir);
        s.subject = SimpleName({{"CN", cn}});
        if (issuer != nullptr) {
            s.issuer = *issuer;
            s.authorityKeyId = true;
        }
        s.serial = std::move(serial);
        s.subjectKeyId = true;
        s.basicConstraints = ca ? std::optional(BasicConstraints{}) : std::nullopt;
        s.keyUsage = KeyUsage::Of(ca ? ku::kKeyCertSign | ku::kCrlSign : ku::kDigitalSignature);
        if (change) {
            change(s);
        }
        Credential made = IssueCredential(s);
        out.Put("cert-" + name + ".der", made.cert.Der());
        return made;
    }

    // With an authority key identifier (RFC 5280 5.2.1).
    void Crl(const std::string &name, const Credential &issuer,
             const std::function<void(CrlSpec &)> &change = {}) {
        CrlSpec s;
        s.issuer = issuer;
        s.extraExtensions = {{"authorityKeyIdentifier", false, detail::AuthorityKeyId(issuer.key)}};
        if (change) {
            change(s);
        }
        out.Put("crl-" + name + ".der", MakeCrl(s));
    }

    std::filesystem::path keyDir;
    detail::Out out;
};

// One revoked entry; reason 1 is keyCompromise.
std::function<void(CrlSpec &)> Revokes(Bytes serial, const char *date,
                                       std::optional<int> reason = 1) {
    return [serial, date, reason](CrlSpec &s) { s.revoked = {{serial, Utc(date), reason}}; };
}

}  // namespace

std::vector<std::string> WritePathPool(const std::filesystem::path &keyDir,
                                       const std::filesystem::path &outDir) {
    PoolWriter w{keyDir, detail::Out(outDir)};
    const Credential root = w.Cert("00-root", nullptr, "root-4096", "Root", {0x01}, true,
                                   [](CertSpec &s) { s.notBefore = Utc("150101000000Z"); });
    const Credential ca = w.Cert("01-ca", &root, "ca-2048", "CA", {0x20}, true);
    // The CA re-keyed: same name, a new key, valid from a later date.
    const Credential caNew = w.Cert("02-ca-new-key", &root, "other-2048", "CA", {0x21}, true,
                                    [](CertSpec &s) { s.notBefore = Utc("250401000000Z"); });
    w.Cert("03-ca-twin-without-keycertsign", &root, "ca-2048", "CA", {0x22}, true,
           [](CertSpec &s) { s.keyUsage = KeyUsage::Of(ku::kCrlSign); });
    const Credential crla = w.Cert("04-crl-authority", &root, "tsa-2048", "CRLA", {0x30}, false,
                                   [](CertSpec &s) { s.keyUsage = KeyUsage::Of(ku::kCrlSign); });
    w.Cert("05-leaf", &ca, "leaf-2048", "Leaf", {0x10}, false, [](CertSpec &s) {
        s.notBefore = Utc("250101000000Z");
        s.notAfter = Utc("260101000000Z");
    });
    const Bytes crlaPoint = CrlIssuerPoint(SubjectDer(crla.cert));
    w.Cert("06-leaf-naming-crla", &ca, "leaf-2048", "Leaf I", {0x12}, false,
           [&crlaPoint](CertSpec &s) {
               s.extraExtensions = {{"crlDistributionPoints", false, crlaPoint}};
           });
    w.Cert("07-leaf-of-new-key", &caNew, "leaf-2048", "Leaf N", {0x11}, false);
    w.Cert("08-leaf-critical-policies", &ca, "leaf-2048", "Leaf X", {0x13}, false, [](CertSpec &s) {
        const Bytes anyPolicy = der::Seq({der::Seq({der::Oid("2.5.29.32.0")})});
        s.extraExtensions = {{"certificatePolicies", true, anyPolicy}};
    });
    w.Cert("09-leaf-critical-private", &ca, "leaf-2048", "Leaf U", {0x14}, false, [](CertSpec &s) {
        s.extraExtensions = {{"1.3.6.1.4.1.99999.7", true, Bytes{0x05, 0x00}}};
    });
    w.Cert("10-leaf-serial-128", &ca, "leaf-2048", "Leaf B", {0x00, 0x80}, false);
    const Credential p0 = w.Cert("11-ca-pathlen-0", &root, "root2-4096", "P0", {0x40}, true,
                                 [](CertSpec &s) { s.basicConstraints->pathLen = 0; });
    const Credential sub = w.Cert("12-ca-under-p0", &p0, "ca-2048", "S", {0x41}, true);
    w.Cert("13-leaf-under-s", &sub, "leaf-2048", "Leaf S", {0x42}, false);
    const Credential weak = w.Cert("14-ca-rsa-1024", &root, "@1024", "CA1024", {0x50}, true);
    w.Cert("15-leaf-of-rsa-1024", &weak, "leaf-2048", "Leaf K", {0x51}, false);
    // Modern keys: a P-384 CA with a P-256 leaf, an EC leaf of the RSA CA
    // and a leaf the RSA CA signed by RSASSA-PSS.
    const Credential ecCa = w.Cert("16-ca-p384", &root, "ec-p384", "CA P384", {0x60}, true);
    w.Cert("17-leaf-p256-of-p384", &ecCa, "ec-p256", "Leaf E", {0x61}, false,
           [](CertSpec &s) { s.digest = Digest::Sha384; });
    w.Cert("18-leaf-p256-of-ca", &ca, "ec-p256", "Leaf F", {0x15}, false);
    w.Cert("19-leaf-pss-of-ca", &ca, "leaf-2048", "Leaf P", {0x16}, false,
           [](CertSpec &s) { s.pss = true; });

    // CRLs in slots by signer (the letter); the harness takes at most one
    // of each slot. Revocations on 2025-03-01 or 2025-09-01.
    const char *before = "250301000000Z";
    const char *later = "250901000000Z";
    w.Crl("a0-root", root);
    w.Crl("a1-root-ca-revoked", root, Revokes({0x20}, before));
    w.Crl("a2-root-ca-superseded-later", root, Revokes({0x20}, later, 4));
    w.Crl("a3-root-new-key-revoked", root, Revokes({0x21}, before));
    w.Crl("a4-root-crla-revoked", root, Revokes({0x30}, before));
    w.Crl("a5-root-only-ca", root,
          [](CrlSpec &s) { s.issuingDistPoint.emplace().onlyCaCerts = true; });
    w.Crl("a6-root-only-users", root,
          [](CrlSpec &s) { s.issuingDistPoint.emplace().onlyUserCerts = true; });
    w.Crl("a7-root-expired", root, [](CrlSpec &s) { s.nextUpdate = Utc("250501000000Z"); });
    w.Crl("a8-root-v1-no-next-update", root, [](CrlSpec &s) {
        s.version = 1;
        s.nextUpdate.reset();
        s.crlNumber.reset();
        s.extraExtensions.clear();
    });
    w.Crl("a9-root-issued-later", root, [](CrlSpec &s) { s.thisUpdate = Utc("260201000000Z"); });
    w.Crl("a10-root-ca-compromised-later", root, Revokes({0x20}, later));

    w.Crl("b0-ca", ca);
    w.Crl("b1-ca-leaf-revoked", ca, Revokes({0x10}, before));
    w.Crl("b2-ca-leaf-revoked-later", ca, Revokes({0x10}, later));
    w.Crl("b3-ca-leaf-ceased-later", ca, Revokes({0x10}, later, 5));
    w.Crl("b4-ca-minus-128", ca, Revokes({0x80}, before));
    w.Crl("b5-ca-others-revoked", ca, [before](CrlSpec &s) {
        s.revoked = {{{0x12}, Utc(before), 1}, {{0x13}, Utc(before), {}}, {{0x14}, Utc(before), 1}};
    });
    w.Crl("b6-ca-only-users", ca,
          [](CrlSpec &s) { s.issuingDistPoint.emplace().onlyUserCerts = true; });
    w.Crl("b7-ca-delta", ca, [](CrlSpec &s) {
        s.extraExtensions.push_back({"2.5.29.27", true, der::Integer(Bytes{0x01})});
    });
    w.Crl("b8-ca-leaf-removed", ca, Revokes({0x10}, before, 8));
    w.Crl("b9-ca-leaf-on-hold", ca, Revokes({0x10}, before, 6));

    w.Crl("c0-new-key", caNew);
    w.Crl("c1-new-key-its-leaf-revoked", caNew, Revokes({0x11}, "250501000000Z"));
    w.Crl("c2-new-key-old-leaf-revoked", caNew, Revokes({0x10}, before));

    const Bytes caName = SubjectDer(ca.cert);
    auto indirect = [](CrlSpec &s) { s.issuingDistPoint.emplace().indirectCrl = true; };
    w.Crl("d0-crla-indirect", crla, indirect);
    w.Crl("d1-crla-indirect-leaf-revoked", crla, [&](CrlSpec &s) {
        indirect(s);
        s.revoked = {{{0x12}, Utc(before), 1, caName}};
    });
    w.Crl("d2-crla-indirect-own-serial", crla, [&](CrlSpec &s) {
        indirect(s);
        Revokes({0x12}, before)(s);
    });
    w.Crl("d3-crla-not-indirect", crla);

    w.Crl("e0-p0", p0);
    w.Crl("e1-p0-s-revoked", p0, Revokes({0x41}, before));
    w.Crl("f0-s", sub);
    w.Crl("g0-rsa-1024", weak);
    w.Crl("h0-p384", ecCa);
    w.Crl("h1-p384-leaf-revoked", ecCa, Revokes({0x61}, before));
    w.Crl("b10-ca-pss", ca, [](CrlSpec &s) { s.pss = true; });
    return w.out.names;
}

}  // namespace testpki
