#pragma once

#include "core/relay/PostgresLogRelay.h"
#include "core/secrets/DesCipher.h"
#include "core/secrets/PostgresInformation.h"

#include <QString>
#include <QStringList>
#include <QVariantMap>

namespace core {

// The encrypted information file, its shared copy and the key file beside them.
class InformationFile
{
public:
    static constexpr int kKeptUnreadableCopies = 3;

    struct Paths {
        QString information;
        QString shared;
        QString key;
    };

    // The three files in an installation folder.
    static Paths pathsIn(const QString &installationFolder);
    // What to tell the operator of a file of these that every user of the machine may read;
    // empty when it is kept as it should be.
    static QString exposure(const QString &path);

    InformationFile(const Paths &paths, const PostgresLogRelay &relay);

    // Loads (or makes) the key, then reads the shared copy when asked for and present,
    // else the information file. Fills both the record and the raw named values. Files that
    // every user may read are noted.
    bool load(bool preferShared, PostgresInformation &information, QVariantMap &values);
    // Replaces the information file atomically, readable by its owner only. A file that
    // failed to load, and an information file whose content was not the one loaded (a
    // shared copy took precedence), are first kept beside themselves as
    // "<name>.unreadable-<time>", so nothing of them is lost when the record is written
    // anew (the first such copy and the newest ones, kKeptUnreadableCopies in all).
    // Refused while the key is not on disk.
    bool save(const PostgresInformation &information);
    // The file the last successful load read: the shared copy or the information file.
    QString loadedPath() const { return m_loadedPath; }
    // The copies kept so far.
    QStringList keptCopies() const { return m_keptCopies; }

    // Loads or makes the key without reading any information.
    void prepareKey();
    const Paths &paths() const { return m_paths; }
    // The message and detail of the last failure, for callers that report it themselves.
    QString lastError() const { return m_lastError; }

private:
    QString sourcePath(bool preferShared) const;
    bool fail(const QString &message, const QString &detail);
    void keepCopyOf(const QString &path);

    Paths m_paths;
    const PostgresLogRelay &m_relay;
    DesCipher m_cipher;
    bool m_keyReady = false;
    bool m_keyOnDisk = false;
    QString m_lastError;
    QString m_unreadablePath;
    QString m_loadedPath;
    QStringList m_keptCopies;
};

} // namespace core
