#include "app/health/ServerHealth.h"

#include "app/output/VerboseLog.h"

#include <QDateTime>
#include <QFileInfo>
#include <QSqlQuery>
#include <QVariant>

#include <algorithm>
#include <cmath>

namespace {
constexpr qint64 kBytesPerMb = 1024 * 1024;
} // namespace

ServerHealth::ServerHealth(const HealthLimits &limits)
    : m_limits(limits)
{ }

void ServerHealth::prepare(QSqlQuery &query, const VerboseLog &verbose)
{
    if (m_limits.maxLagSeconds > 0) {
        // Without these the server shows another role's standbys without their positions.
        m_readsStandbys = query.exec(QStringLiteral("SELECT (SELECT rolsuper FROM pg_roles WHERE rolname = "
                                                    "current_user) OR pg_has_role('pg_read_all_stats', 'MEMBER')"))
            && query.next() && query.value(0).toBool();
        if (!m_readsStandbys)
            verbose.line(QStringLiteral("--max-lag is off: the role may not read how far the standbys have replayed "
                                        "(a superuser may, or a member of pg_read_all_stats)"));
    }
    if (m_limits.maxArchiveBacklogMb <= 0)
        return;
    if (!query.exec(QStringLiteral("SELECT current_setting('archive_mode') <> 'off', "
                                   "has_function_privilege('pg_ls_archive_statusdir()', 'EXECUTE'), (SELECT "
                                   "setting::bigint FROM pg_settings WHERE name = 'wal_segment_size')"))
        || !query.next() || !query.value(0).toBool())
        return;
    m_readsArchive = query.value(1).toBool();
    m_segmentBytes = query.value(2).toLongLong();
    if (!m_readsArchive)
        verbose.line(QStringLiteral("--max-archive-backlog is off: the role may not read the archive status "
                                    "(pg_ls_archive_statusdir, which a superuser and pg_monitor may run)"));
}

QString ServerHealth::check(QSqlQuery &query, bool working)
{
    QString cause = pauseFile();
    if (cause.isEmpty())
        cause = archiveBacklog(query);
    const QString behind = standbyBehind(query, working);
    return cause.isEmpty() ? behind : cause;
}

QString ServerHealth::pauseFile() const
{
    if (m_limits.pauseFile.isEmpty() || !QFileInfo::exists(m_limits.pauseFile))
        return QString();
    return QStringLiteral("the pause file %1 exists").arg(m_limits.pauseFile);
}

QString ServerHealth::archiveBacklog(QSqlQuery &query) const
{
    if (!m_readsArchive)
        return QString();
    if (!query.exec(QStringLiteral("SELECT count(*) FROM pg_ls_archive_statusdir() WHERE name LIKE '%.ready'"))
        || !query.next())
        return QString();
    const qint64 waitingMb = query.value(0).toLongLong() * m_segmentBytes / kBytesPerMb;
    if (waitingMb <= m_limits.maxArchiveBacklogMb)
        return QString();
    return QStringLiteral("%1 MB of WAL wait for the archiver (at most %2 MB)")
        .arg(waitingMb)
        .arg(m_limits.maxArchiveBacklogMb);
}

// The server measures a standby's replay lag only as it sends WAL: once the run pauses and nothing
// else writes, a standby that does not replay (replay paused, a long query on it, a slow disk)
// shows the lag it had. The WAL it has yet to replay, at the rate the run wrote it, says how long
// the run's part of it takes.
QString ServerHealth::standbyBehind(QSqlQuery &query, bool working)
{
    if (!m_readsStandbys)
        return QString();
    if (!query.exec(QStringLiteral("SELECT pg_current_wal_lsn() - '0/0'::pg_lsn")) || !query.next())
        return QString();
    const double position = query.value(0).toDouble();
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    // The fastest the run has written: a stretch that wrote little (a read of the rows written
    // meanwhile) must not make a few kilobytes look like minutes.
    if (working && m_lastPosition >= 0 && now > m_lastReadAt && position > m_lastPosition)
        m_bytesPerSecond
            = std::max(m_bytesPerSecond, (position - m_lastPosition) * 1000.0 / double(now - m_lastReadAt));
    m_lastPosition = position;
    m_lastReadAt = now;
    if (!query.exec(QStringLiteral("SELECT application_name, coalesce(extract(epoch FROM replay_lag), 0), "
                                   "pg_current_wal_lsn() - replay_lsn FROM pg_stat_replication WHERE replay_lsn IS "
                                   "NOT NULL")))
        return QString();
    QString furthest;
    double mostSeconds = 0;
    while (query.next()) {
        const double bytes = query.value(2).toDouble();
        // A standby that has caught up keeps showing the lag it last measured for a while.
        if (bytes <= 0)
            continue;
        double seconds = query.value(1).toDouble();
        if (m_bytesPerSecond > 0)
            seconds = std::max(seconds, bytes / m_bytesPerSecond);
        if (seconds > mostSeconds) {
            mostSeconds = seconds;
            furthest = query.value(0).toString();
        }
    }
    if (mostSeconds <= m_limits.maxLagSeconds)
        return QString();
    return QStringLiteral("the standby \"%1\" is %2 s behind (at most %3 s)")
        .arg(furthest)
        .arg(qint64(std::ceil(mostSeconds)))
        .arg(m_limits.maxLagSeconds);
}
