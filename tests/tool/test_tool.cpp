// verify_tool end to end on packages of the demo hierarchy this build trusts
// (the verification rules are tested in tests/cms). Every run names an
// OpenSSL configuration that, if read, would leave no digest at all.
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
namespace tp = testpki;

const tp::DemoPki &Pki() {
    static const tp::DemoPki pki = tp::MakeDemoPki();
    return pki;
}

tp::Bytes Signature(const std::string &content) {
    return tp::MakePackage(Pki(), tp::Fault::None, tp::Bytes(content.begin(), content.end()))
        .signature;
}

// "HEX  PATH\n" as sha256sum (sha384sum, sha512sum) writes it for `content`.
std::string Line(const std::string &path, const std::string &content,
                 const EVP_MD *md = EVP_sha256(), const char *sep = "  ") {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    EVP_Digest(content.data(), content.size(), digest, &len, md, nullptr);
    std::string hex;
    for (unsigned int i = 0; i < len; ++i) {
        hex += "0123456789abcdef"[digest[i] >> 4];
        hex += "0123456789abcdef"[digest[i] & 15];
    }
    return hex + sep + path + "\n";
}

void Put(const fs::path &file, const std::string &content) {
    fs::create_directories(file.parent_path());
    tp::WriteFile(file, content);
}

// Nested folders and an unlisted file under d/pkg; returns their list.
std::string Base(const fs::path &d) {
    Put(d / "pkg/kernel.img", "kernel image\n");
    Put(d / "pkg/boot/dtb/board.dtb", "device tree\n");
    Put(d / "pkg/rootfs/etc/version", "1.2.3\n");
    Put(d / "pkg/notes.txt", "not listed\n");
    return Line("kernel.img", "kernel image\n") + Line("boot/dtb/board.dtb", "device tree\n") +
           Line("rootfs/etc/version", "1.2.3\n");
}

// Writes `list` as d/pkg/sums and its signature as d/sums.p7s.
void SignList(const fs::path &d, const std::string &list) {
    Put(d / "pkg/sums", list);
    tp::WriteFile(d / "sums.p7s", Signature(list));
}

struct ToolCase {
    const char *name;
    std::vector<std::string> args;  // "@x" is the file x of the run's scratch folder
    int exitStatus;
    // Texts that records hold, in this order; "!x": no record holds x.
    std::vector<std::string> logged;
    // Changes the scratch folder (sums, sums.p7s, crls.der of the demo PKI).
    std::function<void(const fs::path &)> prepare = nullptr;
};

const std::vector<std::string> kIntegrity = {
    "-f", "CHECK_PKG_INTEGRITY", "-h", "@sums.p7s", "-e", "@sums", "-c", "@crls.der"};
const std::vector<std::string> kFiles = {"-f", "CHECK_PKG_FILES", "-h", "@sums.p7s",
                                         "-e", "@pkg/sums",       "-c", "@crls.der"};
const char kExecFail[] = "Verify KTR Command exec fail!";
const char kParseFail[] = "Upgrade Command parse fail!";

const ToolCase kCases[] = {
    // ---- command line and dispatch
    {"unknown_opcode", {"-f", "nope"}, 255, {"Opcode is : nope.", "opcode(nope).", kExecFail}},
    {"eleven_words_refused_before_parsing",
     {"-f", "CHECK_PKG_INTEGRITY", "-h", "a", "-e", "b", "-c", "d", "x", "y"},
     255,
     {"!The Opcode", "API parameter error.", kParseFail}},
    {"path_of_128_refused",
     {"-c", std::string(128, 'c'), "-f", "nope"},
     255,
     {"Argument of -c is longer than 127 characters.", "API parameter parse fail.", kParseFail,
      "!The Opcode"}},
    // The handler's result, logged signed, becomes the exit status.
    {"handler_result_is_the_exit_status",
     {"-f", "CHECK_PKG_INTEGRITY", "-h", "s", "-e", "e", "-c", "/nonexistent"},
     1,
     {"VERIFY_TOOL: Execute function (CHECK_PKG_INTEGRITY).", "Add CRL file /nonexistent failed.",
      "VERIFY_TOOL: Execute ret(-2013265663).", kExecFail}},

    // ---- CHECK_PKG_INTEGRITY
    {"valid_package",
     kIntegrity,
     0,
     {"CheckSum file is valid.", "VERIFY_TOOL: Execute ret(0).", "!exec fail"}},
    {"changed_content",
     kIntegrity,
     255,
     {"Verify signature not match.", "VERIFY_TOOL: Execute ret(-1).", kExecFail},
     [](const fs::path &d) { Put(d / "sums", tp::DemoChecksums() + "\n"); }},
};

// CHECK_PKG_FILES, under a name the thread-sanitizer stage selects.
const ToolCase kFilesCases[] = {
    {"files_valid",
     kFiles,
     0,
     {"CheckSum file is valid.", "Checking 3 package files", "Package files are valid."},
     [](const fs::path &d) {
         // Comments, blank and CRLF lines, binary mode, "./", SHA-384/-512.
         Base(d);
         std::string dtb = Line("./boot/./dtb/board.dtb", "device tree\n");
         dtb.insert(dtb.size() - 1, "\r");
         SignList(d, "# release 1\r\n\r\n" + dtb +
                         Line("kernel.img", "kernel image\n", EVP_sha512(), " *") +
                         Line("rootfs/etc/version", "1.2.3\n", EVP_sha384()));
     }},
    {"last_digest_digit_changed",
     kFiles,
     0x29,
     {"Line 1: digest does not match: kernel.img", "Package files are not valid, code 88000629."},
     [](const fs::path &d) {
         std::string list = Base(d);
         char &last = list[list.find("  ") - 1];
         last = last == '0' ? '1' : '0';
         SignList(d, list);
     }},
    // Problems are logged in list order, at most 20; the first one decides.
    {"every_problem_logged_in_list_order",
     kFiles,
     0x27,
     {"Line 1: no such file: gone.img", "Line 5: not a regular file: pipe",
      "Line 6: '..' in path: boot/../../outside", "Line 7: absolute path: /etc/hostname",
      "Line 8: symbolic link in path: link",
      "Line 9: symbolic link in path: bootlink/dtb/board.dtb",
      "Line 10: not a directory on the way: kernel.img/x", "Line 23: no such file: gone12",
      "!Line 24:", "7 more problems not logged.", "Package files are not valid, code 88000627."},
     [](const fs::path &d) {
         std::string list = Line("gone.img", "x") + Base(d) + Line("pipe", "") +
                            Line("boot/../../outside", "x") + Line("/etc/hostname", "") +
                            Line("link", "x") + Line("bootlink/dtb/board.dtb", "device tree\n") +
                            Line("kernel.img/x", "");
         for (int i = 0; i < 20; ++i) {
             list += Line("gone" + std::to_string(i), "x");
         }
         SignList(d, list);
         Put(d / "outside", "x");
         fs::create_symlink("../outside", d / "pkg/link");
         fs::create_directory_symlink("boot", d / "pkg/bootlink");
         mkfifo((d / "pkg/pipe").c_str(), 0600);  // not waited on
     }},
    // The signature is checked before anything is parsed or opened.
    {"list_changed_after_signing",
     kFiles,
     255,
     {"Verify signature not match.", "!Checking", "!Line"},
     [](const fs::path &d) {
         SignList(d, Base(d));
         Put(d / "pkg/sums", Base(d) + "garbage\n");
     }},
    {"checksum_file_is_a_fifo_for_files",
     kFiles,
     3,
     {"File sums is not a regular file.", "Read checksum file"},
     [](const fs::path &d) { mkfifo((d / "pkg/sums").c_str(), 0600); }},
    {"signature_of_2000001_bytes",
     kFiles,
     6,
     {"is larger than 2000000 bytes.", "!CheckSum file is valid."},
     [](const fs::path &d) {
         SignList(d, Base(d));
         tp::WriteFile(d / "sums.p7s", std::string(2000001, '0'));
     }},
};

void PrintTo(const ToolCase &c, std::ostream *os) {
    *os << c.name;
}

class ToolTest : public testing::TestWithParam<ToolCase> {};

TEST_P(ToolTest, ExitStatusAndRecords) {
    const ToolCase &c = GetParam();
    char pattern[] = "/tmp/vt_tool_case_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const fs::path d(pattern);
    fs::create_directory(d / "pkg");
    Put(d / "sums", tp::DemoChecksums());
    tp::WriteFile(d / "sums.p7s", Signature(tp::DemoChecksums()));
    tp::WriteFile(d / "crls.der", tp::ConcatDer({Pki().rootCrl, Pki().caCrl}));
    tp::WriteFile(d / "null.cnf",
                  "openssl_conf = init\n[init]\nproviders = p\n[p]\nnull = n\n[n]\nactivate = 1\n");
    if (c.prepare != nullptr) {
        c.prepare(d);
    }
    std::vector<std::string> args;
    for (const std::string &a : c.args) {
        args.push_back(a.rfind('@', 0) == 0 ? (d / a.substr(1)).string() : a);
    }
    const vt_test::ToolRun run =
        vt_test::RunTool(args, {"OPENSSL_CONF=" + (d / "null.cnf").string()});
    fs::remove_all(d);

    EXPECT_EQ(run.exitStatus, c.exitStatus) << run.stdoutText;
    const auto holds = [](const std::string &text, const std::string &part) {
        return text.find(part) != std::string::npos;
    };
    auto at = run.logged.begin();
    for (const std::string &want : c.logged) {
        if (want[0] == '!') {
            for (const std::string &record : run.logged) {
                EXPECT_FALSE(holds(record, want.substr(1))) << record;
            }
            continue;
        }
        at = std::find_if(at, run.logged.end(), [&](const auto &r) { return holds(r, want); });
        ASSERT_NE(at, run.logged.end()) << "not logged (in this order): " << want;
        ++at;
    }
}

const auto kName = [](const auto &info) { return std::string(info.param.name); };
INSTANTIATE_TEST_SUITE_P(Tool, ToolTest, testing::ValuesIn(kCases), kName);
INSTANTIATE_TEST_SUITE_P(PkgFilesTest, ToolTest, testing::ValuesIn(kFilesCases), kName);

}  // namespace
