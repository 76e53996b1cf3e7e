// The built-in root certificate: joined from its two pieces byte for byte,
// and the shipped demo root is what the generator makes.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <unistd.h>

#include "platform/lzeb_mem.h"
#include "tool/verify_tool.h"
#include "tools/testpki/testpki.h"

namespace {

std::vector<uint8_t> ReadAll(const char *path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(RootCert, JoinedBufferIsTheConfiguredCertificate) {
    uint8_t *buffer = nullptr;
    uint32_t length = 0;
    ASSERT_EQ(GenerateRootCert(&buffer, &length), 0u);
    const auto expected = ReadAll(VT_ROOT_CERT_FILE);
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + length), expected);
    // One SEQUENCE with a two-byte length that covers the rest.
    ASSERT_GE(length, 4u);
    EXPECT_EQ(buffer[0], 0x30);
    EXPECT_EQ(buffer[1], 0x82);
    EXPECT_EQ((buffer[2] << 8 | buffer[3]) + 4u, length);
    LZEB_FreeSub(buffer, "test", __LINE__);
}

TEST(RootCert, ShippedDemoRootIsRemadeByTheGenerator) {
    const auto shipped = ReadAll(VT_DEMO_ROOT_FILE);
    ASSERT_EQ(shipped.size(), 1363u);
    EXPECT_EQ(testpki::MakeDemoRoot().cert.Der(), shipped);
}

// The build takes exactly one DER certificate and stops on anything else.
TEST(RootCert, BuildRefusesWhatIsNotOneCertificate) {
    const auto good = ReadAll(VT_DEMO_ROOT_FILE);
    auto doubled = good;
    doubled.insert(doubled.end(), good.begin(), good.end());
    auto trailing = good;
    trailing.push_back(0);
    auto wrongTag = good;
    wrongTag[0] = 0x31;
    auto noSignature = good;  // the last element is not a BIT STRING
    noSignature[good.size() - 517] = 0x04;
    const struct {
        const char *name;
        std::vector<uint8_t> bytes;
        bool accepted;
    } rows[] = {
        {"demo root", good, true},
        {"truncated", std::vector<uint8_t>(good.begin(), good.begin() + 1000), false},
        {"two certificates", doubled, false},
        {"trailing byte", trailing, false},
        {"SET instead of SEQUENCE", wrongTag, false},
        {"signature not a BIT STRING", noSignature, false},
    };
    const auto dir =
        std::filesystem::temp_directory_path() / ("vt_root_" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    for (const auto &row : rows) {
        const auto der = dir / "root.der";
        std::ofstream(der, std::ios::binary)
            .write(reinterpret_cast<const char *>(row.bytes.data()),
                   static_cast<std::streamsize>(row.bytes.size()));
        const std::string command = std::string(VT_CMAKE_COMMAND) + " -DDER=" + der.string() +
                                    " -DOUT=" + (dir / "root.cpp").string() + " -P " +
                                    VT_EMBED_CHECK_SCRIPT + " >/dev/null 2>&1";
        EXPECT_EQ(std::system(command.c_str()) == 0, row.accepted) << row.name;
    }
    std::filesystem::remove_all(dir);
}

}  // namespace

// No failure may exit 0: a code ending in 0x00 takes the plain-failure status.
TEST(ExitStatus, OnlySuccessExitsZero) {
    const struct {
        int32_t result;
        int32_t status;
    } rows[] = {
        {0, 0},
        {-1, 255},
        {static_cast<int32_t>(0x88200002u), 2},
        {static_cast<int32_t>(0x88100000u), 255},
        {static_cast<int32_t>(0x88300000u), 255},
        {0x100, 255},
    };
    for (const auto &r : rows) {
        EXPECT_EQ(UPGRADE_ExitStatus(r.result), r.status) << std::hex << r.result;
    }
}
