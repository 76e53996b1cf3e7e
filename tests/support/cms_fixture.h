// What the library's test programs share: the demo hierarchy, a context that
// frees itself, and a look into the captured log records.
#ifndef TESTS_SUPPORT_CMS_FIXTURE_H
#define TESTS_SUPPORT_CMS_FIXTURE_H

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "cms/dorvex.h"
#include "tests/support/syslog_capture.h"
#include "tools/testpki/testpki.h"

namespace vt_test {

inline const testpki::DemoPki &Pki() {
    static const testpki::DemoPki pki = testpki::MakeDemoPki();
    return pki;
}

inline testpki::Bytes Text(const std::string &s) {
    return testpki::Bytes(s.begin(), s.end());
}

struct CtxFree {
    void operator()(DorvexVrfCtx *c) const { EXPECT_EQ(DorvexVrfCtxFree(c), DORVEX_OK); }
};
using CtxPtr = std::unique_ptr<DorvexVrfCtx, CtxFree>;

// A fresh context; it trusts `root` (DER) when one is given.
inline CtxPtr NewCtx(const testpki::Bytes *root = nullptr) {
    DorvexCtxCreateParams params{};
    params.size = DORVEX_CTX_CREATE_PARAMS_SIZE;
    DorvexVrfCtx *ctx = nullptr;
    EXPECT_EQ(DorvexVerifyCreateCtx(&ctx, &params), DORVEX_OK);
    if (root != nullptr) {
        EXPECT_EQ(DorvexVerifyAddCert(ctx, root->data(), static_cast<uint32_t>(root->size())),
                  DORVEX_OK);
    }
    return CtxPtr(ctx);
}

// True when some captured record came from `function` and holds `text`.
inline bool Logged(const std::string &function, const std::string &text) {
    for (const auto &line : CapturedSyslogTexts()) {
        if (line.find("(" + function + "):") != std::string::npos &&
            line.find(text) != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace vt_test

#endif  // TESTS_SUPPORT_CMS_FIXTURE_H
