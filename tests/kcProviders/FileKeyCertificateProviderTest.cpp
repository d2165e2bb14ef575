#include <gmock/gmock.h>

#include "kcProviders/FileKeyCertificateProvider.h"
#include "support/LogCapture.h"
#include "support/OpenDescriptors.h"
#include "support/TemporaryDirectory.h"
#include "support/TestIdentity.h"
#include "support/Thrown.h"

namespace test {
namespace {

using testing::IsEmpty;
using velo::ssoService::FileKeyCertificateProvider;

class FileKeyCertificateProviderTest : public testing::Test {
 protected:
  const TemporaryDirectory directory;
  const std::string keyFile = directory.file("device.key");
  const std::string certificateFile = directory.file("device.crt");
  FileKeyCertificateProvider provider{keyFile, certificateFile};
};

TEST_F(FileKeyCertificateProviderTest, NothingIsReadAtConstruction) {
  const LogCapture log;
  const FileKeyCertificateProvider ofMissingFiles("/nowhere/key", "");
  directory.write("device.key", "later");
  EXPECT_EQ(provider.getPrivateKey(false), "later");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(FileKeyCertificateProviderTest, FilesAreReadByteForByte) {
  using namespace std::string_literals;
  const std::string texts[] = {
      deviceIdentity().privateKey, "no line end", " blanks \n\n", "\r\n", "a\0b\0"s, "\x80\xFF",
      std::string(100000, 'x'),
  };
  for (const std::string& text : texts) {
    directory.write("device.key", text);
    directory.write("device.crt", text);
    EXPECT_EQ(provider.getPrivateKey(true), text);
    EXPECT_EQ(provider.getCertificate(true), text);
  }
}

TEST_F(FileKeyCertificateProviderTest, ChangedFilesAreSeenThroughReloadOnly) {
  directory.write("device.key", "old key");
  directory.write("device.crt", "old certificate");
  provider.getPrivateKey(false);
  provider.getCertificate(false);
  directory.write("device.key", "new key");
  directory.write("device.crt", "new certificate");
  EXPECT_EQ(provider.getPrivateKey(false), "old key");
  EXPECT_EQ(provider.getCertificate(false), "old certificate");
  EXPECT_EQ(provider.getPrivateKey(true), "new key");
  EXPECT_EQ(provider.getCertificate(true), "new certificate");
  EXPECT_EQ(provider.getPrivateKey(false), "new key");
  EXPECT_EQ(provider.getCertificate(false), "new certificate");
}

TEST_F(FileKeyCertificateProviderTest, UnusableFilesAreRefused) {
  const std::string emptyFile = directory.write("empty", "");
  const struct {
    std::string path;
    std::string thrown;
  } rows[] = {
      {directory.file("missing"), "KCException: Couldn't open key/certificate file " + directory.file("missing")},
      {emptyFile + "/below", "KCException: Couldn't open key/certificate file " + emptyFile + "/below"},
      {"", "KCException: Couldn't open key/certificate file "},
      {emptyFile, "KCException:  is empty"},
      {directory.path(), "KCException:  is empty"},
  };
  const LogCapture log;
  for (const auto& row : rows) {
    FileKeyCertificateProvider unusable(row.path, row.path);
    for (const bool reload : {false, true}) {
      EXPECT_EQ(thrownBy([&] { unusable.getPrivateKey(reload); }), row.thrown);
      EXPECT_EQ(thrownBy([&] { unusable.getCertificate(reload); }), row.thrown);
      EXPECT_EQ(thrownBy([&] { unusable.getPublicKey(reload); }), row.thrown);
      EXPECT_EQ(thrownBy([&] { unusable.getCertificateId(reload); }), row.thrown);
    }
  }
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(FileKeyCertificateProviderTest, FailedReadIsTriedAgain) {
  EXPECT_NE(thrownBy([&] { provider.getPrivateKey(false); }), "nothing");
  EXPECT_NE(thrownBy([&] { provider.getCertificate(false); }), "nothing");
  directory.write("device.key", "key");
  directory.write("device.crt", "certificate");
  EXPECT_EQ(provider.getPrivateKey(false), "key");
  EXPECT_EQ(provider.getCertificate(false), "certificate");
}

TEST_F(FileKeyCertificateProviderTest, FailedReloadEmptiesTheCache) {
  directory.write("device.key", "old key");
  directory.write("device.crt", "old certificate");
  provider.getPrivateKey(false);
  provider.getCertificate(false);
  directory.write("device.key", "");
  directory.write("device.crt", "");
  EXPECT_EQ(thrownBy([&] { provider.getPrivateKey(true); }), "KCException:  is empty");
  EXPECT_EQ(thrownBy([&] { provider.getCertificate(true); }), "KCException:  is empty");
  directory.write("device.key", "new key");
  directory.write("device.crt", "new certificate");
  EXPECT_EQ(provider.getPrivateKey(false), "new key");
  EXPECT_EQ(provider.getCertificate(false), "new certificate");
}

TEST_F(FileKeyCertificateProviderTest, ReloadedCertificateEmptiesThePublicKeyButNotTheId) {
  directory.write("device.crt", deviceIdentity().certificate);
  EXPECT_EQ(provider.getPublicKey(false), publicKeyOf(deviceIdentity().certificate));
  EXPECT_EQ(provider.getCertificateId(false), "device-0001");
  directory.write("device.crt", otherIdentity().certificate);
  EXPECT_EQ(provider.getPublicKey(false), publicKeyOf(deviceIdentity().certificate));
  provider.getCertificate(true);
  EXPECT_EQ(provider.getPublicKey(false), publicKeyOf(otherIdentity().certificate));
  EXPECT_EQ(provider.getCertificateId(false), "device-0001");
  EXPECT_EQ(provider.getCertificateId(true), "device-0002");
}

TEST_F(FileKeyCertificateProviderTest, FailedReloadOfTheCertificateEmptiesThePublicKeyToo) {
  directory.write("device.crt", deviceIdentity().certificate);
  provider.getPublicKey(false);
  directory.write("device.crt", "");
  EXPECT_EQ(thrownBy([&] { provider.getCertificate(true); }), "KCException:  is empty");
  EXPECT_EQ(thrownBy([&] { provider.getPublicKey(false); }), "KCException:  is empty");
}

TEST_F(FileKeyCertificateProviderTest, KeyAndCertificateAreIndependent) {
  directory.write("device.key", "key");
  EXPECT_NE(thrownBy([&] { provider.getCertificate(false); }), "nothing");
  EXPECT_EQ(provider.getPrivateKey(false), "key");
}

TEST_F(FileKeyCertificateProviderTest, CloudUrlIsNotSupported) {
  EXPECT_FALSE(provider.isCloudUrlSupported());
  EXPECT_EQ(thrownBy([&] { provider.getCloudUrl(false); }),
            "KCException: Cloud URL retrieval is not supported by the certificate provider");
}

TEST_F(FileKeyCertificateProviderTest, NoDescriptorStaysOpen) {
  const OpenDescriptors open;
  thrownBy([&] { provider.getPrivateKey(false); });
  directory.write("device.key", "");
  thrownBy([&] { provider.getPrivateKey(false); });
  directory.write("device.key", "key");
  provider.getPrivateKey(false);
  EXPECT_TRUE(open.areAsBefore());
}

}  // namespace
}  // namespace test
