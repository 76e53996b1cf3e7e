// The checksum-file parser of CHECK_PKG_FILES, line forms the end-to-end
// packages leave out; and the operation run in this process, to show that
// the list it parses is the one whose signature it checked.
#include <gtest/gtest.h>
#include <string.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "cms/base/dorvex_errno.h"
#include "tool/pkg_files.h"
#include "tool/verify_tool.h"
#include "tools/testpki/testpki.h"

namespace {

const std::string kHex64(64, 'a');

struct ListCase {
    const char *name;
    std::string text;
    uint32_t code;          // of the whole list
    uint32_t line;          // the line it concerns
    uint32_t firstRefusal;  // the first entry's refusal when the list passes
    size_t entries;         // when the list passes
};

const ListCase kLists[] = {
    {"binary_mode_and_upper_case_hex", std::string(64, 'F') + " *a\n", 0, 0, 0, 1},
    {"last_line_without_newline", kHex64 + "  a\n" + kHex64 + "  b", 0, 0, 0, 2},
    {"line_of_blanks_skipped", " \t \n" + kHex64 + "  a\n", 0, 0, 0, 1},
    {"one_space", "\n" + kHex64 + " a\n", DORVEX_ERR_PKG_LINE, 2, 0, 0},
    {"tab_separator", kHex64 + "\ta\n", DORVEX_ERR_PKG_LINE, 1, 0, 0},
    {"63_digits", kHex64.substr(1) + "  a\n", DORVEX_ERR_PKG_LINE, 1, 0, 0},
    {"65_digits", kHex64 + "a  a\n", DORVEX_ERR_PKG_LINE, 1, 0, 0},
    {"no_path", kHex64 + "  \n", DORVEX_ERR_PKG_LINE, 1, 0, 0},
    {"leading_blank", " " + kHex64 + "  a\n", DORVEX_ERR_PKG_LINE, 1, 0, 0},
    {"escaped_name", "\\" + kHex64 + "  a\\nb\n", DORVEX_ERR_PKG_LINE, 1, 0, 0},
    {"cr_inside_path", kHex64 + "  a\rb\r\n", 0, 0, DORVEX_ERR_PKG_PATH, 1},
    {"trailing_slash", kHex64 + "  a/\n", 0, 0, DORVEX_ERR_PKG_PATH, 1},
    {"double_slash", kHex64 + "  a//b\n", 0, 0, DORVEX_ERR_PKG_PATH, 1},
    {"dot_alone", kHex64 + "  ./.\n", 0, 0, DORVEX_ERR_PKG_PATH, 1},
    {"component_of_256", kHex64 + "  " + std::string(256, 'n') + "\n", 0, 0, DORVEX_ERR_PKG_PATH,
     1},
    {"component_of_255", kHex64 + "  " + std::string(255, 'n') + "\n", 0, 0, 0, 1},
    {"path_of_4096", kHex64 + "  " + std::string(2048, 'n') + "/" + std::string(2047, 'n') + "\n",
     0, 0, DORVEX_ERR_PKG_PATH, 1},
    // The earliest repeat is reported, against the line it repeats.
    {"earliest_repeat", kHex64 + "  a\n" + kHex64 + "  b\n" + kHex64 + "  ./b\n" + kHex64 + "  a\n",
     DORVEX_ERR_PKG_DUPLICATE, 3, 0, 0},
    // Refused paths are never opened, so their repeats do not count.
    {"refused_path_twice", kHex64 + "  ../x\n" + kHex64 + "  ../x\n", 0, 0, DORVEX_ERR_PKG_PATH, 2},
};

void PrintTo(const ListCase &c, std::ostream *os) {
    *os << c.name;
}

class PkgListTest : public testing::TestWithParam<ListCase> {};

TEST_P(PkgListTest, CodeLineAndEntries) {
    const ListCase &c = GetParam();
    std::vector<PkgEntry> entries;
    PkgListError error;
    const std::vector<uint8_t> text(c.text.begin(), c.text.end());
    EXPECT_EQ(PkgParseList(text, &entries, &error), c.code);
    EXPECT_EQ(error.line, c.line);
    ASSERT_EQ(entries.size(), c.entries);
    if (!entries.empty()) {
        EXPECT_EQ(entries[0].refused.code, c.firstRefusal);
        EXPECT_EQ(entries[0].digestLen, 32u);
    }
}

INSTANTIATE_TEST_SUITE_P(Tool, PkgListTest, testing::ValuesIn(kLists),
                         [](const auto &info) { return std::string(info.param.name); });

// ---- the list is read once ---------------------------------------------------

std::filesystem::path g_dir;
int g_swaps = 0;

// Puts an unsigned list over the checksum file, naming a file that is not
// there: parsed, it would fail the check.
void SwapList() {
    ++g_swaps;
    testpki::WriteFile(g_dir / "forged", std::string(64, '0') + "  missing.img\n");
    std::rename((g_dir / "forged").c_str(), (g_dir / "sha256sums").c_str());
}

TEST(PkgFiles, ListSwappedAfterTheSignatureCheckIsNotWhatIsParsed) {
    char pattern[] = "/tmp/vt_pkg_once_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    g_dir = pattern;
    g_swaps = 0;  // the program may run this test more than once
    testpki::WriteFile(g_dir / "a.img", std::string_view("payload\n"));
    // sha256("payload\n")
    const std::string list =
        "d4e4877bac978b7952f0d544fc52ebff5411d351d129f1f056fa43f11da9af2b  a.img\n";
    const testpki::DemoPki pki = testpki::MakeDemoPki();
    testpki::WriteFile(g_dir / "sha256sums", list);
    testpki::WriteFile(
        g_dir / "sig.p7s",
        testpki::MakePackage(pki, testpki::Fault::None, testpki::Bytes(list.begin(), list.end()))
            .signature);
    testpki::WriteFile(g_dir / "crls.pem",
                       testpki::PemBundle({{std::string(testpki::kPemCrl), pki.rootCrl},
                                           {std::string(testpki::kPemCrl), pki.caCrl}}));
    VerifyParam param{};
    strncpy(param.cmsPath, (g_dir / "sig.p7s").c_str(), sizeof param.cmsPath - 1);
    strncpy(param.checksumPath, (g_dir / "sha256sums").c_str(), sizeof param.checksumPath - 1);
    strncpy(param.crlPath, (g_dir / "crls.pem").c_str(), sizeof param.crlPath - 1);

    g_pkgFilesListVerified = SwapList;
    const int32_t result = UPGRADE_CheckPkgFiles(&param);
    g_pkgFilesListVerified = nullptr;
    std::filesystem::remove_all(g_dir);
    EXPECT_EQ(g_swaps, 1);
    EXPECT_EQ(result, 0);
}

}  // namespace
