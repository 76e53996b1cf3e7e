// verify_tool's parts in this process: one checksum-file line form per parser
// path (fuzz_intake throws hostile lists at it), the list read once, the exit
// status.
#include <gtest/gtest.h>
#include <string.h>

#include <filesystem>
#include <string>
#include <vector>

#include "cms/base/dorvex_errno.h"
#include "tool/pkg_files.h"
#include "tool/verify_tool.h"
#include "tools/testpki/testpki.h"

namespace {

namespace fs = std::filesystem;
namespace tp = testpki;

const std::string kHex64(64, 'a');

TEST(PkgList, LineForms) {
    const struct {
        const char *name;
        std::string text;
        uint32_t code;          // of the whole list
        uint32_t line;          // the line it concerns
        uint32_t firstRefusal;  // the first entry's refusal when the list passes
        size_t entries;         // when the list passes
    } rows[] = {
        {"binary mode, upper case", std::string(64, 'F') + " *a\n", 0, 0, 0, 1},
        {"comments only", "# none\n\n", DORVEX_ERR_PKG_EMPTY_LIST, 0, 0, 0},
        {"one space", "\n" + kHex64 + " a\n", DORVEX_ERR_PKG_LINE, 2, 0, 0},
        {"escaped name", "\\" + kHex64 + "  a\\nb\n", DORVEX_ERR_PKG_LINE, 1, 0, 0},
        {"CR inside the path", kHex64 + "  a\rb\r\n", 0, 0, DORVEX_ERR_PKG_PATH, 1},
        // The earliest repeat is reported, against the line it repeats.
        {"earliest repeat",
         kHex64 + "  a\n" + kHex64 + "  b\n" + kHex64 + "  ./b\n" + kHex64 + "  a\n",
         DORVEX_ERR_PKG_DUPLICATE, 3, 0, 0},
        // Refused paths are never opened, so their repeats do not count.
        {"refused twice", kHex64 + "  ../x\n" + kHex64 + "  ../x\n", 0, 0, DORVEX_ERR_PKG_PATH, 2},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        std::vector<PkgEntry> entries;
        PkgListError error;
        const std::vector<uint8_t> text(r.text.begin(), r.text.end());
        EXPECT_EQ(PkgParseList(text, &entries, &error), r.code);
        EXPECT_EQ(error.line, r.line);
        ASSERT_EQ(entries.size(), r.entries);
        if (!entries.empty()) {
            EXPECT_EQ(entries[0].refused.code, r.firstRefusal);
            EXPECT_EQ(entries[0].digestLen, 32u);
        }
    }
}

fs::path g_dir;
int g_swaps = 0;

// An unsigned list naming a missing file: parsed, it would fail the check.
void SwapList() {
    ++g_swaps;
    tp::WriteFile(g_dir / "forged", std::string(64, '0') + "  missing.img\n");
    fs::rename(g_dir / "forged", g_dir / "sha256sums");
}

// The list whose signature was checked is the one parsed, whatever lies on
// disk afterwards.
TEST(PkgFiles, ListIsReadOnce) {
    char pattern[] = "/tmp/vt_pkg_once_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    g_dir = pattern;
    g_swaps = 0;  // the program may run this test more than once
    tp::WriteFile(g_dir / "a.img", std::string_view("payload\n"));
    // sha256("payload\n")
    const std::string list =
        "d4e4877bac978b7952f0d544fc52ebff5411d351d129f1f056fa43f11da9af2b  a.img\n";
    const tp::DemoPki pki = tp::MakeDemoPki();
    const tp::Bytes signature =
        tp::MakePackage(pki, tp::Fault::None, tp::Bytes(list.begin(), list.end())).signature;
    tp::WriteFile(g_dir / "sha256sums", list);
    tp::WriteFile(g_dir / "sig.p7s", signature);
    tp::WriteFile(g_dir / "crls.der", tp::ConcatDer({pki.rootCrl, pki.caCrl}));
    VerifyParam param{};
    strncpy(param.cmsPath, (g_dir / "sig.p7s").c_str(), sizeof param.cmsPath - 1);
    strncpy(param.checksumPath, (g_dir / "sha256sums").c_str(), sizeof param.checksumPath - 1);
    strncpy(param.crlPath, (g_dir / "crls.der").c_str(), sizeof param.crlPath - 1);

    g_pkgFilesListVerified = SwapList;
    const int32_t result = UPGRADE_CheckPkgFiles(&param);
    g_pkgFilesListVerified = nullptr;
    fs::remove_all(g_dir);
    EXPECT_EQ(g_swaps, 1);
    EXPECT_EQ(result, 0);
}

// No failure may exit 0: a code ending in 0x00 takes the plain-failure status.
TEST(ExitStatus, OnlySuccessExitsZero) {
    const struct {
        uint32_t result;
        int32_t status;
    } rows[] = {{0, 0}, {0xFFFFFFFFu, 255}, {0x88200002u, 2}, {0x88100000u, 255}, {0x100, 255}};
    for (const auto &r : rows) {
        EXPECT_EQ(UPGRADE_ExitStatus(static_cast<int32_t>(r.result)), r.status)
            << std::hex << r.result;
    }
}

}  // namespace
