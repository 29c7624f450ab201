#include "core/secrets/InformationFile.h"
#include "support/CapturingLogOutput.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>

using core::DesCipher;
using core::InformationFile;
using core::PostgresInformation;

namespace {

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeAll(const QString &path, const QByteArray &data)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(data);
}

bool isOwnerOnly(const QString &path)
{
    const QFileDevice::Permissions others = QFileDevice::ReadGroup | QFileDevice::WriteGroup | QFileDevice::ExeGroup
        | QFileDevice::ReadOther | QFileDevice::WriteOther | QFileDevice::ExeOther;
    const QFileDevice::Permissions permissions = QFile::permissions(path);
    return (permissions & others) == 0 && permissions.testFlag(QFileDevice::ReadOwner);
}

PostgresInformation sampleInformation()
{
    PostgresInformation info;
    info.host = QStringLiteral("127.0.0.1");
    info.port = 5433;
    info.user = QStringLiteral("zentrix");
    info.password = QStringLiteral("pä55");
    info.type = QStringLiteral("local");
    info.dbName = QStringLiteral("sentrova_core_abc123");
    info.dbConnection = 10;
    info.instanceName = QStringLiteral("abc123");
    info.deploymentId = QStringLiteral("abc123");
    return info;
}

} // namespace

class InformationFileTest : public ::testing::Test
{
protected:
    QString path(const char *name) const { return m_dir.filePath(QLatin1String(name)); }
    InformationFile::Paths paths() const
    {
        return {path("zentrix_postgres.dat"), path("zentrix_postgres.dat.shared"), path("zentrix_postgres.cat")};
    }

    // Runs the openssl command line with the key file's key and IV.
    QByteArray openssl(bool decrypt, const QByteArray &input)
    {
        const QByteArray key = readAll(path("zentrix_postgres.cat")).left(24);
        QProcess process;
        QStringList arguments = {QStringLiteral("enc"), QStringLiteral("-des-ede3-cfb8"), QStringLiteral("-K"),
            QString::fromLatin1(key.toHex()), QStringLiteral("-iv"), QString::fromLatin1(key.left(8).toHex())};
        if (decrypt)
            arguments << QStringLiteral("-d");
        process.start(QStringLiteral("openssl"), arguments);
        process.write(input);
        process.closeWriteChannel();
        process.waitForFinished();
        return process.readAllStandardOutput();
    }

    QTemporaryDir m_dir;
    ScopedLogCapture m_capture;
    core::PostgresLogRelay m_relay{true, false};
};

TEST_F(InformationFileTest, CipherKeepsLengthAndRoundTrips)
{
    DesCipher cipher;
    ASSERT_TRUE(cipher.loadOrCreateKeyFile(path("k.cat")));
    for (const QByteArray &plain : {QByteArray("a"), QByteArray(1000, 'x'), QByteArray("{\"k\":\"\xc3\xa9\"}")}) {
        const QByteArray encrypted = cipher.encrypt(plain);
        EXPECT_EQ(encrypted.size(), plain.size());
        EXPECT_NE(encrypted, plain);
        EXPECT_EQ(cipher.decrypt(encrypted), plain);
    }
    EXPECT_TRUE(cipher.encrypt(QByteArray()).isEmpty());
    EXPECT_EQ(cipher.decryptText(cipher.encryptText(QStringLiteral("é😀"))), QStringLiteral("é😀"));
}

TEST_F(InformationFileTest, KeyFileIsMadeOnceWithOddParityAndOwnerOnlyAccess)
{
    DesCipher first;
    ASSERT_TRUE(first.loadOrCreateKeyFile(path("k.cat")));
    const QByteArray key = readAll(path("k.cat"));
    ASSERT_EQ(key.size(), 24);
    for (char byte : key)
        EXPECT_EQ(__builtin_popcount(static_cast<unsigned char>(byte)) % 2, 1) << "odd parity";
    EXPECT_TRUE(isOwnerOnly(path("k.cat")));
    DesCipher second;
    second.loadOrCreateKeyFile(path("k.cat"));
    EXPECT_EQ(second.keyMaterial(), key);
}

TEST_F(InformationFileTest, ShortKeyFileIsReplacedAndOldFilesBecomeUnreadable)
{
    InformationFile file(paths(), m_relay);
    ASSERT_TRUE(file.save(sampleInformation()));
    writeAll(path("zentrix_postgres.cat"), readAll(path("zentrix_postgres.cat")).left(23));

    InformationFile reopened(paths(), m_relay);
    PostgresInformation info;
    QVariantMap values;
    EXPECT_FALSE(reopened.load(false, info, values));
    EXPECT_EQ(readAll(path("zentrix_postgres.cat")).size(), 24);
    EXPECT_EQ(
        m_capture.output->messages(), QStringList({QStringLiteral("Could not read postgres's information file")}));
}

TEST_F(InformationFileTest, Base64KeysArePaddedAndParitySet)
{
    DesCipher cipher;
    cipher.setKeysFromBase64(QByteArray("\x02\x04\x06\x08\x0a\x0c\x0e\x10\x12", 9).toBase64());
    EXPECT_EQ(cipher.keyMaterial().toHex(),
        QByteArray("020407080b0d0e10"
                   "1301010101010101"
                   "0101010101010101"));
}

TEST_F(InformationFileTest, SavedFileIsCompactSortedJsonThatOpensslDecrypts)
{
    InformationFile file(paths(), m_relay);
    ASSERT_TRUE(file.save(sampleInformation()));
    const QByteArray stored = readAll(path("zentrix_postgres.dat"));
    const QByteArray expected
        = "{\"core_version\":\"\",\"db_connection\":10,\"dbname\":\"sentrova_core_abc123\",\"deployment_id\":"
          "\"abc123\","
          "\"host\":\"127.0.0.1\",\"instance_name\":\"abc123\",\"is_need_db_upgrade\":false,\"password\":\"p\xc3\xa4"
          "55\",\"pin_code\":\"\",\"port\":5433,\"private_password\":\"\",\"private_username\":\"\","
          "\"retain_private_user\":false,\"type\":\"local\",\"upgrade_v2_status\":true,\"user\":\"zentrix\"}";
    EXPECT_EQ(stored.size(), expected.size()) << "no encoding on top of the cipher text";
    EXPECT_EQ(openssl(true, stored), expected);
    EXPECT_TRUE(isOwnerOnly(path("zentrix_postgres.dat")));
}

TEST_F(InformationFileTest, FileEncryptedByOpensslLoads)
{
    InformationFile file(paths(), m_relay);
    file.prepareKey();
    writeAll(path("zentrix_postgres.dat"),
        openssl(false,
            "{\"host\":\"db.example\",\"port\":6543,\"user\":\"u\",\"password\":\"p\",\"type\":\"remote\","
            "\"dbname\":\"\",\"postgres_first_setup\":true}"));
    PostgresInformation info;
    QVariantMap values;
    ASSERT_TRUE(file.load(false, info, values));
    EXPECT_EQ(info.host, QStringLiteral("db.example"));
    EXPECT_EQ(info.port, 6543);
    EXPECT_EQ(info.type, QStringLiteral("remote"));
    EXPECT_FALSE(info.isLocal());
    EXPECT_TRUE(values.value(QStringLiteral("postgres_first_setup")).toBool());
}

TEST_F(InformationFileTest, SharedCopyTakesPrecedenceOnlyWhenAskedAndPresent)
{
    InformationFile file(paths(), m_relay);
    PostgresInformation own = sampleInformation();
    ASSERT_TRUE(file.save(own));
    PostgresInformation info;
    QVariantMap values;
    ASSERT_TRUE(file.load(true, info, values)) << "a missing shared copy falls back";
    EXPECT_EQ(info.host, own.host);

    PostgresInformation shared = own;
    shared.host = QStringLiteral("shared.host");
    ASSERT_TRUE(file.save(shared));
    ASSERT_TRUE(QFile::rename(path("zentrix_postgres.dat"), path("zentrix_postgres.dat.shared")));
    ASSERT_TRUE(file.save(own));
    ASSERT_TRUE(file.load(true, info, values));
    EXPECT_EQ(info.host, QStringLiteral("shared.host"));
    ASSERT_TRUE(file.load(false, info, values));
    EXPECT_EQ(info.host, own.host);
}

TEST_F(InformationFileTest, ValidationNamesTheFirstBadKeyInKeyOrder)
{
    const struct {
        const char *json;
        const char *detail;
    } cases[] = {
        {R"({"host":"h","port":1,"user":"u","password":"p","type":"cloud"})",
            "config file is invalid, type is invalid"},
        {R"({"host":"","port":1,"user":"","password":"p","type":"local"})", "config file is invalid, host is empty"},
        {R"({"zzz":"","host":"h","port":1,"user":"u","password":"","type":"1"})",
            "config file is invalid, password is empty"},
        {R"({"host":"h","port":null,"user":"u","password":"p","type":"2"})", "config file is invalid, port is empty"},
        {R"({"host":"h","type":"Local"})", "config file is invalid, type is invalid"},
        {R"({"extra":[],"host":"h","type":"local"})", "config file is invalid, extra is empty"},
    };
    InformationFile file(paths(), m_relay);
    file.prepareKey();
    DesCipher cipher;
    cipher.loadOrCreateKeyFile(path("zentrix_postgres.cat"));
    for (const auto &c : cases) {
        m_capture.output->entries.clear();
        writeAll(path("zentrix_postgres.dat"), cipher.encrypt(c.json));
        PostgresInformation info;
        QVariantMap values;
        EXPECT_FALSE(file.load(false, info, values)) << c.json;
        ASSERT_EQ(m_capture.output->entries.size(), 1u);
        EXPECT_EQ(m_capture.output->entries[0]->parameters.value(0).second,
            QStringLiteral("Could not load postgres's information from file"));
        EXPECT_EQ(m_capture.output->entries[0]->parameters.value(1).second, QLatin1String(c.detail));
    }
}

TEST_F(InformationFileTest, EmptyAllowedKeysAndAbsentKeysPass)
{
    DesCipher cipher;
    cipher.loadOrCreateKeyFile(path("zentrix_postgres.cat"));
    writeAll(path("zentrix_postgres.dat"),
        cipher.encrypt(R"({"dbname":"","private_password":"","instance_name":"","pin_code":"","deployment_id":"",)"
                       R"("core_version":"","private_username":"","dbserver/private_username":"",)"
                       R"("dbserver/private_password":"","retain_private_user":"","is_need_db_upgrade":"",)"
                       R"("upgrade_v2_status":""})"));
    InformationFile file(paths(), m_relay);
    PostgresInformation info;
    QVariantMap values;
    EXPECT_TRUE(file.load(false, info, values));
    EXPECT_TRUE(m_capture.output->entries.empty());
}

TEST_F(InformationFileTest, UnwritableTargetIsLoggedNotThrown)
{
    InformationFile::Paths unwritable = paths();
    unwritable.information = path("missing/dir/zentrix_postgres.dat");
    InformationFile file(unwritable, m_relay);
    EXPECT_FALSE(file.save(sampleInformation()));
    EXPECT_EQ(m_capture.output->messages(), QStringList({QStringLiteral("Could not open file for write")}));
}

TEST_F(InformationFileTest, UnreadableFilesAreKeptFirstAndNewest)
{
    InformationFile file(paths(), m_relay);
    PostgresInformation info;
    QVariantMap values;
    for (int round = 0; round < 5; ++round) {
        writeAll(path("zentrix_postgres.dat"), "not encrypted JSON " + QByteArray::number(round));
        ASSERT_FALSE(file.load(false, info, values));
        ASSERT_TRUE(file.save(sampleInformation()));
        QThread::msleep(2);
    }
    const QStringList kept = QDir(m_dir.path()).entryList({QStringLiteral("zentrix_postgres.dat.unreadable-*")});
    ASSERT_EQ(kept.size(), 3);
    const QByteArray expected[] = {"not encrypted JSON 0", "not encrypted JSON 3", "not encrypted JSON 4"};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(readAll(m_dir.filePath(kept[i])), expected[i]);
        EXPECT_TRUE(isOwnerOnly(m_dir.filePath(kept[i])));
    }
    ASSERT_TRUE(file.save(sampleInformation()));
    EXPECT_EQ(QDir(m_dir.path()).entryList({QStringLiteral("zentrix_postgres.dat.unreadable-*")}).size(), 3)
        << "only a file that failed to load is kept";
    ASSERT_TRUE(file.load(false, info, values));
}
