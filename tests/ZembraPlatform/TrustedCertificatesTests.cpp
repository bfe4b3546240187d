// Where a client's trusted authorities come from.

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "http/TrustedCertificates.h"

namespace zembra {
namespace {

TEST(TrustedCertificatesTest, AreTheDirectorysWhereItIsHashedElseTheFilesAndTheAdditions) {
    const std::filesystem::path directory = testing::TempDir() + "zembra-authorities";
    std::filesystem::create_directories(directory);
    std::filesystem::remove(directory / "0a1b2c3d.0");
    std::ofstream(directory / "authority.pem") << "-----BEGIN TRUSTED CERTIFICATE-----\n";

    for (const std::filesystem::path& unhashed : {directory, std::filesystem::path("/nonexistent")}) {
        const TrustedCertificates byFile(unhashed, "/certs.pem");
        EXPECT_EQ(byFile.directory() + '|' + byFile.file(), "|/certs.pem");
        EXPECT_EQ(byFile.origin(), "/certs.pem");
    }
    std::ofstream(directory / "0a1b2c3d.0");
    const TrustedCertificates byDirectory(directory, "/certs.pem");
    EXPECT_EQ(byDirectory.directory() + '|' + byDirectory.file(), directory.string() + '|');

    const auto both =
        byDirectory.withFile(directory / "authority.pem")->withText("-----BEGIN CERTIFICATE-----");
    EXPECT_EQ(both->additions(), "-----BEGIN TRUSTED CERTIFICATE-----\n\n-----BEGIN CERTIFICATE-----\n");
    EXPECT_EQ(both->origin(),
              directory.string() + ", " + (directory / "authority.pem").string() + ", the given text");
    EXPECT_FALSE(both->problem());
    EXPECT_EQ(both->withText("no PEM")->withText("-----BEGIN CERTIFICATE-----")->problem(),
              "the given text holds no PEM certificate");
}

}  // namespace
}  // namespace zembra
