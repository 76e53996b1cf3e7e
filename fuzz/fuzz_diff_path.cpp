// Path validation with revocation against OpenSSL's X509_verify_cert on a
// pool from 'testpki path-pool' (VT_FUZZ_PATH_POOL). Input bytes (missing are
// 0): the time (index into every pool date, a second before, at, after),
// bit 0 strict, the target, a bit per pool certificate (three bytes), one
// byte per CRL slot (0 none, else variant v - 1). Forgiven, Refused and
// Withheld bend OpenSSL to our intended departures (SECURITY.md); any other
// difference in verdicts aborts.
#include <openssl/err.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "fuzz/support.h"

namespace {

using fuzz_support::Bytes;
using fuzz_support::CrlPtr;
using fuzz_support::Deleter;
using fuzz_support::Die;
using fuzz_support::X509Ptr;

template <typename Ptr>
struct Pooled {
    std::string name;
    Bytes der;
    Ptr openssl;
};
using PoolCert = Pooled<X509Ptr>;
using PoolCrl = Pooled<CrlPtr>;

std::vector<PoolCert> g_certs;
std::vector<std::vector<PoolCrl>> g_slots;  // by signer letter
std::vector<int64_t> g_times;

// One verification: what the input chose.
struct Case {
    int64_t time = 0;
    bool strict = false;
    std::vector<const PoolCert *> certs;
    std::vector<const PoolCrl *> crls;
    const PoolCert *target = nullptr;
    // What OpenSSL's CRL check was handed, per certificate (it does not say later).
    mutable std::vector<std::pair<X509 *, X509_CRL *>> judged;
};

int64_t Epoch(const ASN1_TIME *t) {
    struct tm tm {};
    if (t == nullptr || ASN1_TIME_to_tm(t, &tm) != 1) {
        Die("a pool date does not convert");
    }
    return timegm(&tm);
}

void LoadPool(const std::filesystem::path &dir) {
    using Listing = std::filesystem::directory_iterator;
    std::vector<std::filesystem::path> files(Listing{dir}, Listing{});
    std::sort(files.begin(), files.end());
    std::map<char, size_t> slotOf;
    for (const auto &file : files) {
        Bytes der = fuzz_support::ReadOrDie(file);
        const std::string name = file.stem().string();
        const uint8_t *p = der.data();
        if (name.starts_with("cert-")) {
            X509Ptr x(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
            if (x == nullptr) {
                Die("OpenSSL cannot read " + file.string());
            }
            g_certs.push_back({name, std::move(der), std::move(x)});
        } else if (name.starts_with("crl-") && name.size() > 4) {
            CrlPtr crl(d2i_X509_CRL(nullptr, &p, static_cast<long>(der.size())));
            if (crl == nullptr) {
                Die("OpenSSL cannot read " + file.string());
            }
            auto [at, added] = slotOf.emplace(name[4], g_slots.size());
            if (added) {
                g_slots.emplace_back();
            }
            g_slots[at->second].push_back({name, std::move(der), std::move(crl)});
        }
    }
    if (g_certs.empty() || g_certs.size() > 24 || g_slots.empty()) {
        Die("the pool in " + dir.string() + " needs 1 to 24 certificates and a CRL");
    }
    auto add = [](const ASN1_TIME *t) {
        if (t != nullptr) {  // a CRL without nextUpdate
            const int64_t d = Epoch(t);
            g_times.insert(g_times.end(), {d - 1, d, d + 1});
        }
    };
    for (const PoolCert &c : g_certs) {
        add(X509_get0_notBefore(c.openssl.get()));
        add(X509_get0_notAfter(c.openssl.get()));
    }
    for (const auto &slot : g_slots) {
        for (const PoolCrl &c : slot) {
            add(X509_CRL_get0_lastUpdate(c.openssl.get()));
            add(X509_CRL_get0_nextUpdate(c.openssl.get()));
            STACK_OF(X509_REVOKED) *revoked = X509_CRL_get_REVOKED(c.openssl.get());
            for (int i = 0; i < sk_X509_REVOKED_num(revoked); ++i) {
                add(X509_REVOKED_get0_revocationDate(sk_X509_REVOKED_value(revoked, i)));
            }
        }
    }
    std::sort(g_times.begin(), g_times.end());
    g_times.erase(std::unique(g_times.begin(), g_times.end()), g_times.end());
}

Case Decode(const uint8_t *data, size_t size) {
    auto at = [&](size_t i) -> uint32_t { return i < size ? data[i] : 0; };
    Case c;
    c.time = g_times[at(0) % g_times.size()];
    c.strict = (at(1) & 1) != 0;
    const uint32_t mask = at(3) | at(4) << 8 | at(5) << 16;
    // As many as the store holds.
    for (size_t i = 0; i < g_certs.size() && c.certs.size() < DORVEX_LIST_CAPACITY; ++i) {
        if ((mask >> i & 1) != 0) {
            c.certs.push_back(&g_certs[i]);
        }
    }
    if (!c.certs.empty()) {
        c.target = c.certs[at(2) % c.certs.size()];
    }
    for (size_t s = 0; s < g_slots.size(); ++s) {
        const uint32_t pick = at(6 + s) % (g_slots[s].size() + 1);
        if (pick != 0) {
            c.crls.push_back(&g_slots[s][pick - 1]);
        }
    }
    return c;
}

// DorvexPkiVerifyCert's result, certificates and CRLs added as a stream each.
uint32_t Ours(const Case &c) {
    DorvexVrfCtx *ctx = fuzz_support::NewCtx();
    Bytes certs;
    Bytes crls;
    for (const PoolCert *p : c.certs) {
        certs.insert(certs.end(), p->der.begin(), p->der.end());
    }
    for (const PoolCrl *p : c.crls) {
        crls.insert(crls.end(), p->der.begin(), p->der.end());
    }
    fuzz_support::Check(
        DorvexVerifyAddCert(ctx, certs.data(), static_cast<uint32_t>(certs.size())) == DORVEX_OK &&
        (crls.empty() ||
         DorvexVerifyAddCrl(ctx, crls.data(), static_cast<uint32_t>(crls.size())) == DORVEX_OK));
    ctx->verifyTime = c.time;
    DorvexX509Cert *target = nullptr;
    const DorvexList &stored = ctx->pki->certs;
    for (int32_t i = 0; i < stored.count && target == nullptr; ++i) {
        auto *cert = static_cast<DorvexX509Cert *>(stored.items[i]);
        if (cert->raw.len == c.target->der.size() &&
            memcmp(cert->raw.data, c.target->der.data(), cert->raw.len) == 0) {
            target = cert;
        }
    }
    uint32_t valid = 0;
    const uint32_t ret =
        target == nullptr ? DORVEX_FAIL : DorvexPkiVerifyCert(ctx, target, 1, c.strict, &valid);
    fuzz_support::Check((ret == DORVEX_OK) == (valid == 1));
    (void)DorvexVrfCtxFree(ctx);
    return ret;
}

bool Openssl(const Case &c, int *error = nullptr);

X509 *Current(X509_STORE_CTX *ctx) {
    return X509_STORE_CTX_get_current_cert(ctx);
}

X509_CRL *JudgedCrl(X509_STORE_CTX *ctx, const Case &c) {
    for (auto it = c.judged.rbegin(); it != c.judged.rend(); ++it) {
        if (it->first == Current(ctx)) {
            return it->second;
        }
    }
    return nullptr;
}

bool AtTime(const ASN1_TIME *t, const Case &c) {
    return t != nullptr && Epoch(t) == c.time;
}

// basicConstraints cA only, as this verifier reads it (unlike X509_check_ca).
bool IsCa(X509 *cert) {
    return (X509_get_extension_flags(cert) & EXFLAG_CA) != 0;
}

// Whether `crl` revokes the current certificate at the time: the date decides
// for a non-strict end entity and for reasons 3, 4, 5. *dated: not yet.
bool RevokesByOurRules(X509_STORE_CTX *ctx, X509_CRL *crl, const Case &c, bool *dated = nullptr) {
    X509_REVOKED *entry = nullptr;
    if (crl == nullptr || X509_CRL_get0_by_cert(crl, &entry, Current(ctx)) == 0) {
        return false;
    }
    std::unique_ptr<ASN1_ENUMERATED, Deleter<ASN1_ENUMERATED_free>> reason(
        static_cast<ASN1_ENUMERATED *>(
            X509_REVOKED_get_ext_d2i(entry, NID_crl_reason, nullptr, nullptr)));
    const long code = reason != nullptr ? ASN1_ENUMERATED_get(reason.get()) : 0;
    const bool keySound = code == 3 || code == 4 || code == 5;
    const bool strict = c.strict || X509_STORE_CTX_get0_parent_ctx(ctx) != nullptr;
    const bool later = (keySound || (!strict && !IsCa(Current(ctx)))) &&
                       Epoch(X509_REVOKED_get0_revocationDate(entry)) > c.time;
    if (dated != nullptr) {
        *dated = later;
    }
    return !later;
}

// A critical extension this verifier does not read.
bool UnknownCritical(X509 *cert) {
    for (int i = 0; i < X509_get_ext_count(cert); ++i) {
        X509_EXTENSION *ext = X509_get_ext(cert, i);
        const int nid = OBJ_obj2nid(X509_EXTENSION_get_object(ext));
        if (X509_EXTENSION_get_critical(ext) != 0 && nid != NID_basic_constraints &&
            nid != NID_key_usage && nid != NID_ext_key_usage &&
            nid != NID_crl_distribution_points) {
            return true;
        }
    }
    return false;
}

// Whether the certificate's cRLDistributionPoints name `issuer` as CRL issuer.
bool NamesCrlIssuer(X509 *cert, const X509_NAME *issuer) {
    std::unique_ptr<STACK_OF(DIST_POINT), Deleter<CRL_DIST_POINTS_free>> points(
        static_cast<STACK_OF(DIST_POINT) *>(
            X509_get_ext_d2i(cert, NID_crl_distribution_points, nullptr, nullptr)));
    for (int i = 0; points != nullptr && i < sk_DIST_POINT_num(points.get()); ++i) {
        const GENERAL_NAMES *names = sk_DIST_POINT_value(points.get(), i)->CRLissuer;
        for (int j = 0; j < sk_GENERAL_NAME_num(names); ++j) {
            const GENERAL_NAME *name = sk_GENERAL_NAME_value(names, j);
            if (name->type == GEN_DIRNAME && X509_NAME_cmp(name->d.directoryName, issuer) == 0) {
                return true;
            }
        }
    }
    return false;
}

// An indirect CRL of the case, in scope and named by the certificate, that
// revokes it by our rules and whose signer OpenSSL trusts.
bool IndirectRevokes(X509_STORE_CTX *ctx, const Case &c) {
    X509 *cert = Current(ctx);
    for (const PoolCrl *p : c.crls) {
        X509_CRL *crl = p->openssl.get();
        std::unique_ptr<ISSUING_DIST_POINT, Deleter<ISSUING_DIST_POINT_free>> idp(
            static_cast<ISSUING_DIST_POINT *>(
                X509_CRL_get_ext_d2i(crl, NID_issuing_distribution_point, nullptr, nullptr)));
        if (idp == nullptr || idp->indirectCRL == 0 || (idp->onlyuser != 0 && IsCa(cert)) ||
            (idp->onlyCA != 0 && !IsCa(cert)) || !NamesCrlIssuer(cert, X509_CRL_get_issuer(crl)) ||
            !RevokesByOurRules(ctx, crl, c)) {
            continue;
        }
        for (const PoolCert *signer : c.certs) {
            if (X509_NAME_cmp(X509_get_subject_name(signer->openssl.get()),
                              X509_CRL_get_issuer(crl)) != 0 ||
                X509_CRL_verify(crl, X509_get0_pubkey(signer->openssl.get())) != 1) {
                continue;
            }
            Case signerCase = c;
            signerCase.target = signer;
            signerCase.judged.clear();
            if (Openssl(signerCase)) {
                return true;
            }
        }
    }
    return false;
}

// An OpenSSL error our rules do not raise.
bool Forgiven(X509_STORE_CTX *ctx, const Case &c, int error) {
    static constexpr int kRevocationErrors[] = {
        X509_V_ERR_UNABLE_TO_GET_CRL,        X509_V_ERR_CRL_NOT_YET_VALID,
        X509_V_ERR_CRL_HAS_EXPIRED,          X509_V_ERR_CERT_REVOKED,
        X509_V_ERR_DIFFERENT_CRL_SCOPE,      X509_V_ERR_CRL_PATH_VALIDATION_ERROR,
        X509_V_ERR_UNABLE_TO_GET_CRL_ISSUER, X509_V_ERR_CRL_SIGNATURE_FAILURE,
        X509_V_ERR_KEYUSAGE_NO_CRL_SIGN,     X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION};
    // RFC 5280 6.1: the trust anchor is never checked for revocation.
    if (std::find(std::begin(kRevocationErrors), std::end(kRevocationErrors), error) !=
            std::end(kRevocationErrors) &&
        X509_STORE_CTX_get_error_depth(ctx) == sk_X509_num(X509_STORE_CTX_get0_chain(ctx)) - 1 &&
        (X509_get_extension_flags(Current(ctx)) & EXFLAG_SS) != 0) {
        return true;
    }
    bool dated = false;
    switch (error) {
        case X509_V_ERR_CRL_NOT_YET_VALID:
            // The time is the token's; a CRL issued since still counts.
            return true;
        case X509_V_ERR_CERT_HAS_EXPIRED:
            // RFC 5280 4.1.2.5: the period includes notAfter (and nextUpdate).
            return AtTime(X509_get0_notAfter(Current(ctx)), c);
        case X509_V_ERR_CRL_HAS_EXPIRED:
            return AtTime(X509_CRL_get0_nextUpdate(JudgedCrl(ctx, c)), c);
        case X509_V_ERR_CERT_REVOKED:
            (void)RevokesByOurRules(ctx, JudgedCrl(ctx, c), c, &dated);
            return dated;
        default:
            return false;
    }
}

// A certificate whose checks OpenSSL passed but our rules refuse.
bool Refused(X509_STORE_CTX *ctx, const Case &c) {
    STACK_OF(X509) *chain = X509_STORE_CTX_get0_chain(ctx);
    const int above = X509_STORE_CTX_get_error_depth(ctx) + 1;
    X509 *issuer = above < sk_X509_num(chain) ? sk_X509_value(chain, above) : nullptr;
    EVP_PKEY *key = issuer != nullptr ? X509_get0_pubkey(issuer) : nullptr;
    X509_REVOKED *entry = nullptr;
    X509_CRL *crl = JudgedCrl(ctx, c);
    // RSA keys below 2048 bits; OpenSSL's default level takes 1024.
    return (key != nullptr && EVP_PKEY_is_a(key, "RSA") == 1 && EVP_PKEY_get_bits(key) < 2048) ||
           // RFC 5280 4.2; OpenSSL reads more (certificate policies).
           UnknownCritical(Current(ctx)) ||
           // removeFromCRL (get0_by_cert's 2) revokes in a complete CRL.
           (crl != nullptr && X509_CRL_get0_by_cert(crl, &entry, Current(ctx)) == 2 &&
            RevokesByOurRules(ctx, crl, c)) ||
           // Every CRL speaking for it counts; OpenSSL reads its best one.
           IndirectRevokes(ctx, c);
}

// A CRL kept from OpenSSL: in the target issuer's name but not signed by the
// key that signed the target (a re-keyed CA's new key says nothing of old ones).
bool Withheld(X509_CRL *crl, const Case &c) {
    X509 *target = c.target->openssl.get();
    return X509_NAME_cmp(X509_CRL_get_issuer(crl), X509_get_issuer_name(target)) == 0 &&
           std::any_of(c.certs.begin(), c.certs.end(), [&](const PoolCert *issuer) {
               EVP_PKEY *key = X509_get0_pubkey(issuer->openssl.get());
               return X509_NAME_cmp(X509_get_subject_name(issuer->openssl.get()),
                                    X509_get_issuer_name(target)) == 0 &&
                      X509_verify(target, key) == 1 && X509_CRL_verify(crl, key) != 1;
           });
}

// A CRL signer's path is checked in a child context, without our data.
const Case &CaseOf(X509_STORE_CTX *ctx) {
    while (X509_STORE_CTX_get0_parent_ctx(ctx) != nullptr) {
        ctx = X509_STORE_CTX_get0_parent_ctx(ctx);
    }
    return *static_cast<const Case *>(X509_STORE_CTX_get_app_data(ctx));
}

int Callback(int ok, X509_STORE_CTX *ctx) {
    if (ok == 0) {
        return Forgiven(ctx, CaseOf(ctx), X509_STORE_CTX_get_error(ctx)) ? 1 : 0;
    }
    if (Refused(ctx, CaseOf(ctx))) {
        X509_STORE_CTX_set_error(ctx, X509_V_ERR_APPLICATION_VERIFICATION);
        return 0;
    }
    return 1;
}

// OpenSSL's own CRL check, and the hook that notes what it is handed.
int (*g_checkCrl)(X509_STORE_CTX *, X509_CRL *) = nullptr;

int CheckCrl(X509_STORE_CTX *ctx, X509_CRL *crl) {
    CaseOf(ctx).judged.emplace_back(Current(ctx), crl);
    return g_checkCrl(ctx, crl);
}

// The stacks hold pointers only; the pool owns the objects.
struct StackFree {
    void operator()(void *stack) const { OPENSSL_sk_free(static_cast<OPENSSL_STACK *>(stack)); }
};

// Self-signed certificates are anchors; EXTENDED_CRL_SUPPORT reads indirect CRLs.
bool Openssl(const Case &c, int *error) {
    std::unique_ptr<X509_STORE, Deleter<X509_STORE_free>> store(X509_STORE_new());
    std::unique_ptr<X509_STORE_CTX, Deleter<X509_STORE_CTX_free>> ctx(X509_STORE_CTX_new());
    std::unique_ptr<STACK_OF(X509), StackFree> untrusted(sk_X509_new_null());
    // In the context: the store is searched by issuer name, missing indirect CRLs.
    std::unique_ptr<STACK_OF(X509_CRL), StackFree> crls(sk_X509_CRL_new_null());
    fuzz_support::Check(store != nullptr && untrusted != nullptr && crls != nullptr &&
                        ctx != nullptr);
    for (const PoolCert *p : c.certs) {
        if ((X509_get_extension_flags(p->openssl.get()) & EXFLAG_SS) != 0) {
            X509_STORE_add_cert(store.get(), p->openssl.get());
        } else {
            sk_X509_push(untrusted.get(), p->openssl.get());
        }
    }
    for (const PoolCrl *p : c.crls) {
        if (!Withheld(p->openssl.get(), c)) {
            sk_X509_CRL_push(crls.get(), p->openssl.get());
        }
    }
    X509_STORE_set_check_crl(store.get(), CheckCrl);
    fuzz_support::Check(
        X509_STORE_CTX_init(ctx.get(), store.get(), c.target->openssl.get(), untrusted.get()) == 1);
    X509_STORE_CTX_set0_crls(ctx.get(), crls.get());
    X509_VERIFY_PARAM *param = X509_STORE_CTX_get0_param(ctx.get());
    X509_VERIFY_PARAM_set_flags(param, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL |
                                           X509_V_FLAG_EXTENDED_CRL_SUPPORT);
    X509_VERIFY_PARAM_set_time(param, static_cast<time_t>(c.time));
    X509_STORE_CTX_set_app_data(ctx.get(), const_cast<Case *>(&c));
    X509_STORE_CTX_set_verify_cb(ctx.get(), Callback);
    const bool accepted = X509_verify_cert(ctx.get()) == 1;
    if (error != nullptr) {
        *error = X509_STORE_CTX_get_error(ctx.get());
    }
    ERR_clear_error();
    return accepted;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    LoadPool(fuzz_support::FolderOf("VT_FUZZ_PATH_POOL", "path-pool"));
    std::unique_ptr<X509_STORE, Deleter<X509_STORE_free>> store(X509_STORE_new());
    std::unique_ptr<X509_STORE_CTX, Deleter<X509_STORE_CTX_free>> ctx(X509_STORE_CTX_new());
    if (store == nullptr || ctx == nullptr ||
        X509_STORE_CTX_init(ctx.get(), store.get(), g_certs[0].openssl.get(), nullptr) != 1 ||
        (g_checkCrl = X509_STORE_CTX_get_check_crl(ctx.get())) == nullptr) {
        Die("OpenSSL's CRL check cannot be found");
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const Case c = Decode(data, size);
    if (c.target == nullptr) {
        return 0;
    }
    const uint32_t ours = Ours(c);
    int error = X509_V_OK;
    if ((ours == DORVEX_OK) != Openssl(c, &error)) {
        fprintf(stderr,
                "fuzz_diff_path: verdicts differ on %s at %lld%s: ours 0x%08x, OpenSSL %s\n",
                c.target->name.c_str(), static_cast<long long>(c.time), c.strict ? " (strict)" : "",
                ours, error == X509_V_OK ? "accepts" : X509_verify_cert_error_string(error));
        abort();
    }
    return 0;
}
