#include "updates/UpdateSignature.h"

#include <sodium.h>

#include <QFile>

namespace kelvo::UpdateSignature {

namespace {

bool sodiumReady() {
    static const bool ready = sodium_init() >= 0;
    return ready;
}

QByteArray decode(const QByteArray& base64, qsizetype expectedSize) {
    auto result =
        QByteArray::fromBase64Encoding(base64.trimmed(), QByteArray::AbortOnBase64DecodingErrors);
    if (!result || result.decoded.size() != expectedSize) return {};
    return result.decoded;
}

const unsigned char* bytes(const QByteArray& data) {
    return reinterpret_cast<const unsigned char*>(data.constData());
}

}  // namespace

KeyPair generateKeyPair() {
    if (!sodiumReady()) return {};
    QByteArray publicKey(crypto_sign_PUBLICKEYBYTES, '\0');
    QByteArray secretKey(crypto_sign_SECRETKEYBYTES, '\0');
    crypto_sign_keypair(reinterpret_cast<unsigned char*>(publicKey.data()),
                        reinterpret_cast<unsigned char*>(secretKey.data()));
    KeyPair pair{publicKey.toBase64(), secretKey.toBase64()};
    sodium_memzero(secretKey.data(), static_cast<size_t>(secretKey.size()));
    return pair;
}

QByteArray sign(const QByteArray& data, const QByteArray& secretKeyBase64) {
    if (!sodiumReady()) return {};
    QByteArray secretKey = decode(secretKeyBase64, crypto_sign_SECRETKEYBYTES);
    if (secretKey.isEmpty()) return {};
    QByteArray signature(crypto_sign_BYTES, '\0');
    crypto_sign_detached(reinterpret_cast<unsigned char*>(signature.data()), nullptr, bytes(data),
                         static_cast<unsigned long long>(data.size()), bytes(secretKey));
    sodium_memzero(secretKey.data(), static_cast<size_t>(secretKey.size()));
    return signature.toBase64();
}

QString publicKeyProblem(const QByteArray& publicKeyBase64) {
    if (publicKeyBase64.trimmed().isEmpty())
        return QStringLiteral("this build has no update signing key configured");
    if (decode(publicKeyBase64, crypto_sign_PUBLICKEYBYTES).isEmpty())
        return QStringLiteral("this build's update signing key is not a valid Ed25519 key");
    return {};
}

QString verifyFile(const QString& path, qint64 expectedLength, const QByteArray& signatureBase64,
                   const QByteArray& publicKeyBase64) {
    if (!sodiumReady()) return QStringLiteral("the signature library could not start");
    const QString keyProblem = publicKeyProblem(publicKeyBase64);
    if (!keyProblem.isEmpty()) return keyProblem;
    const QByteArray signature = decode(signatureBase64, crypto_sign_BYTES);
    if (signature.isEmpty()) return QStringLiteral("the update's signature is malformed");
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("the download cannot be read: %1").arg(file.errorString());
    if (file.size() != expectedLength)
        return QStringLiteral("the download has %1 bytes, the feed announced %2")
            .arg(file.size())
            .arg(expectedLength);
    // Mapped rather than read: the whole file is signed, and builds can be large.
    const uchar* data = expectedLength > 0 ? file.map(0, expectedLength) : nullptr;
    if (expectedLength > 0 && !data)
        return QStringLiteral("the download cannot be read: %1").arg(file.errorString());
    const QByteArray publicKey = decode(publicKeyBase64, crypto_sign_PUBLICKEYBYTES);
    const bool valid = crypto_sign_verify_detached(bytes(signature), data,
                                                   static_cast<unsigned long long>(expectedLength),
                                                   bytes(publicKey)) == 0;
    if (!valid) return QStringLiteral("the update's signature does not verify");
    return {};
}

}  // namespace kelvo::UpdateSignature
