#include <gtest/gtest.h>

#include "tests/QtTestPrinters.h"

#include <QFile>
#include <QTemporaryDir>

#include "updates/UpdateSignature.h"

namespace UpdateSignature = kelvo::UpdateSignature;

namespace {

class UpdateSignatureTest : public ::testing::Test {
protected:
    QString write(const QByteArray& content) {
        const QString path = dir.filePath(QStringLiteral("payload"));
        QFile file(path);
        file.open(QIODevice::WriteOnly | QIODevice::Truncate);
        file.write(content);
        return path;
    }

    QTemporaryDir dir;
    UpdateSignature::KeyPair keys = UpdateSignature::generateKeyPair();
    QByteArray payload = QByteArray(100000, 'k') + "end";
};

}  // namespace

TEST_F(UpdateSignatureTest, ASignedFileVerifies) {
    const QByteArray signature = UpdateSignature::sign(payload, keys.secretKey);
    ASSERT_FALSE(signature.isEmpty());
    EXPECT_EQ(
        UpdateSignature::verifyFile(write(payload), payload.size(), signature, keys.publicKey),
        QString());
}

TEST_F(UpdateSignatureTest, AChangedFileDoesNotVerify) {
    const QByteArray signature = UpdateSignature::sign(payload, keys.secretKey);
    QByteArray changed = payload;
    changed[5] = 'x';
    EXPECT_EQ(
        UpdateSignature::verifyFile(write(changed), changed.size(), signature, keys.publicKey),
        QStringLiteral("the update's signature does not verify"));
}

TEST_F(UpdateSignatureTest, AnotherKeysSignatureDoesNotVerify) {
    const auto other = UpdateSignature::generateKeyPair();
    const QByteArray signature = UpdateSignature::sign(payload, other.secretKey);
    EXPECT_EQ(
        UpdateSignature::verifyFile(write(payload), payload.size(), signature, keys.publicKey),
        QStringLiteral("the update's signature does not verify"));
}

TEST_F(UpdateSignatureTest, ALengthOtherThanAnnouncedFails) {
    const QByteArray signature = UpdateSignature::sign(payload, keys.secretKey);
    EXPECT_EQ(
        UpdateSignature::verifyFile(write(payload.left(10)), payload.size(), signature,
                                    keys.publicKey),
        QStringLiteral("the download has 10 bytes, the feed announced %1").arg(payload.size()));
}

TEST_F(UpdateSignatureTest, MalformedSignaturesAndKeysAreNamed) {
    const QString path = write(payload);
    EXPECT_EQ(UpdateSignature::verifyFile(path, payload.size(), "not base64!", keys.publicKey),
              QStringLiteral("the update's signature is malformed"));
    EXPECT_EQ(UpdateSignature::verifyFile(path, payload.size(), "c2hvcnQ=", keys.publicKey),
              QStringLiteral("the update's signature is malformed"));
    const QByteArray signature = UpdateSignature::sign(payload, keys.secretKey);
    EXPECT_EQ(UpdateSignature::verifyFile(path, payload.size(), signature, QByteArray()),
              QStringLiteral("this build has no update signing key configured"));
    EXPECT_EQ(UpdateSignature::verifyFile(path, payload.size(), signature, "c2hvcnQ="),
              QStringLiteral("this build's update signing key is not a valid Ed25519 key"));
    EXPECT_TRUE(UpdateSignature::sign(payload, "c2hvcnQ=").isEmpty());
}
