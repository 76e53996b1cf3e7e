// CHECK_PKG_FILES end to end: the sandboxed tool over package directories
// made here, whose checksum files the demo hierarchy of the test-PKI
// generator signs (the root this build trusts). Exit statuses are the low
// byte of the result code: 0x21 not regular ... 0x29 digest mismatch, and
// 0x03 (DORVEX_ERR_FILE_TYPE) for a checksum file that is no regular file.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tests/tool/tool_runner.h"
#include "tools/testpki/testpki.h"

namespace {

namespace fs = std::filesystem;

const testpki::DemoPki &Pki() {
    static const testpki::DemoPki pki = testpki::MakeDemoPki();
    return pki;
}

// "HEX  PATH\n" as sha256sum (sha384sum, sha512sum) writes it for `content`.
std::string Line(const std::string &path, const std::string &content,
                 const EVP_MD *md = EVP_sha256()) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    EVP_Digest(content.data(), content.size(), digest, &len, md, nullptr);
    static const char kHex[] = "0123456789abcdef";
    std::string hex;
    for (unsigned int i = 0; i < len; ++i) {
        hex += kHex[digest[i] >> 4];
        hex += kHex[digest[i] & 15];
    }
    return hex + "  " + path + "\n";
}

void Put(const fs::path &file, const std::string &content) {
    fs::create_directories(file.parent_path());
    testpki::WriteFile(file, content);
}

// The package every case starts from: nested folders and a file the list
// leaves out. Returns its list.
std::string Base(const fs::path &pkg) {
    Put(pkg / "kernel.img", "kernel image\n");
    Put(pkg / "boot/dtb/board.dtb", "device tree\n");
    Put(pkg / "rootfs/etc/version", "1.2.3\n");
    Put(pkg / "notes.txt", "not listed\n");
    return Line("kernel.img", "kernel image\n") + Line("boot/dtb/board.dtb", "device tree\n") +
           Line("rootfs/etc/version", "1.2.3\n");
}

struct FilesCase {
    const char *name;
    // Fills the package folder `pkg` (inside the scratch folder) and returns
    // the checksum file to sign.
    std::function<std::string(const fs::path &pkg)> make;
    int exitStatus;
    std::vector<std::string> logged;  // messages that must all be among the records
    // After signing: spoils the package or names another -e (relative to
    // the scratch folder); empty keeps "pkg/sha256sums".
    std::function<std::string(const fs::path &pkg)> after = nullptr;
};

const std::string kValid = "Package files are valid.";

std::string Replace(std::string text, const std::string &from, const std::string &to) {
    for (size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

const FilesCase kCases[] = {
    {"valid_nested_with_unlisted_file", Base, 0, {"CheckSum file is valid.", kValid}},
    {"crlf_lines_comments_and_blanks",
     [](const fs::path &pkg) { return "# release 1\r\n\r\n" + Replace(Base(pkg), "\n", "\r\n"); },
     0,
     {kValid}},
    {"sha512_and_sha384_lines",
     [](const fs::path &pkg) {
         Base(pkg);
         return Line("kernel.img", "kernel image\n", EVP_sha512()) +
                Line("rootfs/etc/version", "1.2.3\n", EVP_sha384());
     },
     0,
     {kValid}},
    {"one_byte_changed",
     Base,
     0x29,
     {"Line 1: digest does not match: kernel.img"},
     [](const fs::path &pkg) {
         Put(pkg / "kernel.img", "kernel imagE\n");
         return "";
     }},
    {"last_digest_digit_changed",
     [](const fs::path &pkg) {
         std::string list = Base(pkg);
         char &last = list[list.find("  ") - 1];
         last = last == '0' ? '1' : '0';
         return list;
     },
     0x29,
     {"Line 1: digest does not match: kernel.img"}},
    {"signature_of_2000001_bytes",
     Base,
     0x06,
     {},
     [](const fs::path &pkg) {
         testpki::WriteFile(pkg / "../sig.p7s", std::string(2000001, '0'));
         return "";
     }},
    {"file_missing",
     [](const fs::path &pkg) { return Base(pkg) + Line("extra.img", "x"); },
     0x27,
     {"Line 4: no such file: extra.img", "Package files are not valid, code 88000627."}},
    {"listed_directory",
     [](const fs::path &pkg) { return Base(pkg) + Line("boot/dtb", ""); },
     0x21,
     {"Line 4: not a regular file: boot/dtb"}},
    {"listed_fifo",
     [](const fs::path &pkg) {
         mkfifo((pkg / "pipe").c_str(), 0600);
         return Base(pkg) + Line("pipe", "");
     },
     0x21,
     {"Line 4: not a regular file: pipe"}},
    {"dot_dot_path",
     [](const fs::path &pkg) {
         Put(pkg / "../outside", "outside\n");
         return Base(pkg) + Line("boot/../../outside", "outside\n");
     },
     0x25,
     {"Line 4: '..' in path: boot/../../outside"}},
    {"absolute_path",
     [](const fs::path &pkg) { return Base(pkg) + Line("/etc/hostname", ""); },
     0x25,
     {"Line 4: absolute path: /etc/hostname"}},
    {"symlink_pointing_out",
     [](const fs::path &pkg) {
         Put(pkg / "../outside", "outside\n");
         fs::create_symlink("../outside", pkg / "link");
         return Base(pkg) + Line("link", "outside\n");
     },
     0x26,
     {"Line 4: symbolic link in path: link"}},
    {"symlink_pointing_in",
     [](const fs::path &pkg) {
         fs::create_symlink("kernel.img", pkg / "alias.img");
         return Base(pkg) + Line("alias.img", "kernel image\n");
     },
     0x26,
     {"Line 4: symbolic link in path: alias.img"}},
    {"symlinked_directory_on_the_way",
     [](const fs::path &pkg) {
         Base(pkg);
         fs::create_directory_symlink("boot", pkg / "bootlink");
         return Line("bootlink/dtb/board.dtb", "device tree\n");
     },
     0x26,
     {"Line 1: symbolic link in path: bootlink/dtb/board.dtb"}},
    {"duplicate_under_another_spelling",
     [](const fs::path &pkg) {
         return Base(pkg) + Line("./boot/./dtb/board.dtb", "device tree\n");
     },
     0x24,
     {"Checksum file line 4: path listed a second time (first on line 2)."}},
    {"malformed_line",
     [](const fs::path &pkg) { return Base(pkg) + "0123abcd  short.img\n"; },
     0x22,
     {"Checksum file line 4: not a checksum line."}},
    {"empty_list",
     [](const fs::path &pkg) {
         Base(pkg);
         return std::string("# nothing listed\n\n");
     },
     0x23,
     {"Checksum file refused: it lists no file."}},
    // The first problem in list order decides; every one is logged.
    {"first_problem_decides",
     [](const fs::path &pkg) { return Line("gone.img", "x") + Base(pkg); },
     0x27,
     {"Line 1: no such file: gone.img", "Line 2: digest does not match: kernel.img"},
     [](const fs::path &pkg) {
         Put(pkg / "kernel.img", "changed\n");
         return "";
     }},
    {"problem_lines_bounded",
     [](const fs::path &pkg) {
         std::string list = Base(pkg);
         for (int i = 0; i < 30; ++i) {
             list += Line("gone" + std::to_string(i), "x");
         }
         return list;
     },
     0x27,
     {"Line 23: no such file: gone19", "10 more problems not logged."}},
    // The signature is checked before anything is parsed or opened.
    {"list_changed_after_signing",
     Base,
     255,
     {"Verify signature not match."},
     [](const fs::path &pkg) {
         Put(pkg / "sha256sums", Base(pkg) + Line("evil.img", "x"));
         return "";
     }},
    // Opened without blocking: a FIFO named as the list is refused, not waited on.
    {"checksum_file_is_a_fifo",
     Base,
     0x03,
     {"File fifo is not a regular file."},
     [](const fs::path &pkg) {
         mkfifo((pkg / "fifo").c_str(), 0600);
         return "pkg/fifo";
     }},
};

void PrintTo(const FilesCase &c, std::ostream *os) {
    *os << c.name;
}

class PkgFilesTest : public testing::TestWithParam<FilesCase> {};

TEST_P(PkgFilesTest, ExitStatusAndLoggedProblems) {
    const FilesCase &c = GetParam();
    char pattern[] = "/tmp/vt_pkg_files_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const fs::path root(pattern);
    const fs::path pkg = root / "pkg";
    fs::create_directory(pkg);
    const std::string list = c.make(pkg);
    testpki::WriteFile(pkg / "sha256sums", list);
    const testpki::Bytes content(list.begin(), list.end());
    testpki::WriteFile(root / "sig.p7s",
                       testpki::MakePackage(Pki(), testpki::Fault::None, content).signature);
    testpki::WriteFile(root / "crls.pem",
                       testpki::PemBundle({{std::string(testpki::kPemCrl), Pki().rootCrl},
                                           {std::string(testpki::kPemCrl), Pki().caCrl}}));
    std::string checksums = "pkg/sha256sums";
    if (c.after != nullptr) {
        const std::string other = c.after(pkg);
        checksums = other.empty() ? checksums : other;
    }
    const vt_test::ToolRun run =
        vt_test::RunTool({"-f", "CHECK_PKG_FILES", "-h", (root / "sig.p7s").string(), "-e",
                          (root / checksums).string(), "-c", (root / "crls.pem").string()});
    fs::remove_all(root);

    EXPECT_EQ(run.exitStatus, c.exitStatus) << run.stdoutText;
    std::vector<std::string> messages;
    for (const auto &r : run.records) {
        messages.push_back(r.message);
    }
    for (const std::string &want : c.logged) {
        EXPECT_NE(std::find(messages.begin(), messages.end(), want), messages.end()) << want;
    }
    const auto problems = std::count_if(messages.begin(), messages.end(),
                                        [](const auto &m) { return m.rfind("Line ", 0) == 0; });
    EXPECT_LE(problems, 20);
    // Nothing is opened unless the list verified and parsed.
    const bool checked = std::any_of(messages.begin(), messages.end(),
                                     [](const auto &m) { return m.rfind("Checking ", 0) == 0; });
    EXPECT_EQ(checked, c.exitStatus == 0 || problems > 0);
}

INSTANTIATE_TEST_SUITE_P(Tool, PkgFilesTest, testing::ValuesIn(kCases),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
