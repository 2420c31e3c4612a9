// Ed25519 signatures of published builds (libsodium). A release is signed with the publisher's
// secret key; every Kelvo build carries the matching public key and installs nothing it cannot
// verify with it.
#pragma once

#include <QByteArray>
#include <QString>

namespace kelvo::UpdateSignature {

struct KeyPair {
    QByteArray publicKey;  // base64 of 32 bytes
    QByteArray secretKey;  // base64 of 64 bytes
};

// A fresh key pair; empty keys only if libsodium cannot start.
KeyPair generateKeyPair();

// The base64 detached signature of the data; empty when the secret key is not a valid key.
QByteArray sign(const QByteArray& data, const QByteArray& secretKeyBase64);

// Empty when the file is exactly expectedLength bytes and its signature verifies with the
// public key; otherwise the reason, in words.
QString verifyFile(const QString& path, qint64 expectedLength, const QByteArray& signatureBase64,
                   const QByteArray& publicKeyBase64);

// The reason a public key cannot be used, or empty when it is a valid key.
QString publicKeyProblem(const QByteArray& publicKeyBase64);

}  // namespace kelvo::UpdateSignature
