#pragma once

#include <QByteArray>
#include <QString>

#include <array>

namespace core {

// Three-key triple DES (encrypt, decrypt, encrypt) in 8-bit cipher feedback mode: the
// cipher text is exactly as long as the plain text. The IV is the first key's 8 bytes.
class DesCipher
{
public:
    static constexpr int kKeyLength = 8;
    static constexpr int kKeyCount = 3;
    static constexpr int kKeyMaterialLength = kKeyLength * kKeyCount;

    // Reads the first 24 bytes of the key file; a missing or shorter file is replaced by
    // three new random keys. Returns false when a new key could not be written (the keys
    // are still set). Throws Exception when the file exists but cannot be read, or when no
    // usable key can be generated.
    bool loadOrCreateKeyFile(const QString &path);
    // Bytes 0-7, 8-15 and 16-23 of the decoded text become the three keys.
    void setKeysFromBase64(const QByteArray &text);
    // Takes up to 24 raw bytes; short pieces are padded with zero bytes.
    void setKeys(const QByteArray &material);
    QByteArray keyMaterial() const;

    QByteArray encrypt(const QByteArray &plain) const;
    QByteArray encryptText(const QString &text) const;
    QByteArray decrypt(const QByteArray &cipher) const;
    QString decryptText(const QByteArray &cipher) const;

private:
    static QByteArray generateKeyMaterial();
    QByteArray run(const QByteArray &input, bool encrypting) const;

    std::array<QByteArray, kKeyCount> m_keys;
};

} // namespace core
