// The DES key helpers (parity, weak-key test) have no EVP equivalent; the cipher itself
// goes through EVP.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "core/secrets/DesCipher.h"

#include "config/exceptions/Exception.h"
#include "core/secrets/SecretFile.h"

#include <QFile>
#include <QUuid>

#include <openssl/des.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <memory>

namespace core {

namespace {

// A key piece shorter than 8 bytes is padded with zero bytes.
void toBlock(const QByteArray &key, DES_cblock &block)
{
    std::fill(std::begin(block), std::end(block), 0);
    std::copy_n(key.constData(), std::min<qsizetype>(key.size(), sizeof(block)), block);
}

QByteArray withOddParity(const QByteArray &piece)
{
    DES_cblock block;
    toBlock(piece, block);
    DES_set_odd_parity(&block);
    return QByteArray(reinterpret_cast<const char *>(block), sizeof(block));
}

bool isUsable(DES_cblock &block)
{
    const bool allZero = std::all_of(std::begin(block), std::end(block), [](unsigned char b) { return b == 0; });
    DES_key_schedule schedule;
    return !allZero && DES_set_key_checked(&block, &schedule) == 0;
}

struct CipherContextDeleter {
    void operator()(EVP_CIPHER_CTX *context) const { EVP_CIPHER_CTX_free(context); }
};

} // namespace

bool DesCipher::loadOrCreateKeyFile(const QString &path)
{
    QFile file(path);
    if (file.exists()) {
        // Only a missing or short key is replaced: one that cannot be read may still be the
        // only key to the information file, and a new one would make that unreadable for good.
        const QByteArray material = file.open(QIODevice::ReadOnly) ? file.read(kKeyMaterialLength) : QByteArray();
        if (file.error() != QFileDevice::NoError)
            throw Exception(QStringLiteral("Could not read the key file %1: %2").arg(path, file.errorString()));
        // Windows cannot replace a file that is still open.
        file.close();
        if (material.size() == kKeyMaterialLength) {
            setKeys(material);
            return true;
        }
    }
    const QByteArray material = generateKeyMaterial();
    setKeys(material);
    return SecretFile::write(path, material);
}

QByteArray DesCipher::generateKeyMaterial()
{
    const QByteArray seed = QUuid::createUuid().toString().toUtf8();
    RAND_seed(seed.constData(), static_cast<int>(seed.size()));
    QByteArray material;
    for (int i = 0; i < kKeyCount; ++i) {
        DES_cblock block;
        if (DES_random_key(&block) != 1 || !isUsable(block))
            throw Exception(QStringLiteral("Failed to generate password key"));
        material.append(reinterpret_cast<const char *>(block), sizeof(block));
    }
    return material;
}

void DesCipher::setKeysFromBase64(const QByteArray &text)
{
    setKeys(QByteArray::fromBase64(text));
}

void DesCipher::setKeys(const QByteArray &material)
{
    for (int i = 0; i < kKeyCount; ++i)
        m_keys[i] = withOddParity(material.mid(i * kKeyLength, kKeyLength));
}

QByteArray DesCipher::keyMaterial() const
{
    return m_keys[0] + m_keys[1] + m_keys[2];
}

QByteArray DesCipher::encrypt(const QByteArray &plain) const
{
    return run(plain, true);
}

QByteArray DesCipher::encryptText(const QString &text) const
{
    return run(text.toUtf8(), true);
}

QByteArray DesCipher::decrypt(const QByteArray &cipher) const
{
    return run(cipher, false);
}

QString DesCipher::decryptText(const QByteArray &cipher) const
{
    return QString::fromUtf8(run(cipher, false));
}

QByteArray DesCipher::run(const QByteArray &input, bool encrypting) const
{
    if (input.isEmpty())
        return {};
    const std::unique_ptr<EVP_CIPHER_CTX, CipherContextDeleter> context(EVP_CIPHER_CTX_new());
    const QByteArray key = keyMaterial();
    const auto *keyBytes = reinterpret_cast<const unsigned char *>(key.constData());
    if (!context
        || EVP_CipherInit_ex(context.get(), EVP_des_ede3_cfb8(), nullptr, keyBytes, keyBytes, encrypting ? 1 : 0) != 1)
        return {};
    QByteArray output(input.size(), '\0');
    int written = 0;
    int finalWritten = 0;
    auto *out = reinterpret_cast<unsigned char *>(output.data());
    if (EVP_CipherUpdate(context.get(), out, &written, reinterpret_cast<const unsigned char *>(input.constData()),
            static_cast<int>(input.size()))
            != 1
        || EVP_CipherFinal_ex(context.get(), out + written, &finalWritten) != 1)
        return {};
    output.resize(written + finalWritten);
    return output;
}

} // namespace core
