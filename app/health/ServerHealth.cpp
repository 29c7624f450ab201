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

ServerHealth::ServerHealth(const HealthLimits &limits, qint64 readIntervalMs)
    : m_limits(limits)
    , m_lag(readIntervalMs)
    , m_backlog(readIntervalMs)
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
    const QString file = pauseFile();
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    if (!(m_readsStandbys || m_readsArchive) || !readPosition(query, now, working))
        return file;
    // Both are read at every reading, whatever else holds the run, so that each knows how fast it grows.
    const QString backlog = archiveBacklog(query, now, working);
    const QString behind = standbyBehind(query, now, working);
    if (!file.isEmpty())
        return file;
    return backlog.isEmpty() ? behind : backlog;
}

QString ServerHealth::pauseFile() const
{
    if (m_limits.pauseFile.isEmpty() || !QFileInfo::exists(m_limits.pauseFile))
        return QString();
    return QStringLiteral("the pause file %1 exists").arg(m_limits.pauseFile);
}

bool ServerHealth::readPosition(QSqlQuery &query, qint64 now, bool working)
{
    if (!query.exec(QStringLiteral("SELECT pg_current_wal_lsn() - '0/0'::pg_lsn")) || !query.next())
        return false;
    const double position = query.value(0).toDouble();
    // The fastest the run has written: a stretch that wrote little (a read of the rows written
    // meanwhile) must not make a few kilobytes look like minutes.
    if (working && m_position >= 0 && now > m_positionAt && position > m_position)
        m_bytesPerSecond = std::max(m_bytesPerSecond, (position - m_position) * 1000.0 / double(now - m_positionAt));
    m_position = position;
    m_positionAt = now;
    return true;
}

QString ServerHealth::archiveBacklog(QSqlQuery &query, qint64 now, bool working)
{
    if (!m_readsArchive)
        return QString();
    if (!query.exec(QStringLiteral("SELECT count(*) FROM pg_ls_archive_statusdir() WHERE name LIKE '%.ready'"))
        || !query.next())
        return QString();
    const qint64 ready = query.value(0).toLongLong();
    m_backlog.read(double(ready * m_segmentBytes) + std::fmod(m_position, double(m_segmentBytes)), now, working);
    // The segment being filled waits as well once a segment before it does; alone, it is not the
    // archiver's yet, and a run paused for it would wait for ever.
    if (ready == 0)
        return QString();
    const double limit = double(m_limits.maxArchiveBacklogMb) * kBytesPerMb;
    if (m_backlog.value() > limit)
        return QStringLiteral("%1 MB of WAL wait for the archiver (at most %2 MB)")
            .arg(qint64(std::ceil(m_backlog.value() / kBytesPerMb)))
            .arg(m_limits.maxArchiveBacklogMb);
    if (m_backlog.ahead() > limit)
        return QStringLiteral("the archiver is falling behind: %1 MB of WAL will wait for it by the next reading "
                              "(at most %2 MB)")
            .arg(qint64(std::ceil(m_backlog.ahead() / kBytesPerMb)))
            .arg(m_limits.maxArchiveBacklogMb);
    return QString();
}

// The server measures a standby's replay lag only as it sends WAL: once the run pauses and nothing
// else writes, a standby that does not replay (replay paused, a long query on it, a slow disk)
// shows the lag it had. The WAL it has yet to replay, at the rate the run wrote it, says how long
// the run's part of it takes.
QString ServerHealth::standbyBehind(QSqlQuery &query, qint64 now, bool working)
{
    if (!m_readsStandbys)
        return QString();
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
    m_lag.read(mostSeconds, now, working);
    if (mostSeconds > m_limits.maxLagSeconds)
        return QStringLiteral("the standby \"%1\" is %2 s behind (at most %3 s)")
            .arg(furthest)
            .arg(qint64(std::ceil(mostSeconds)))
            .arg(m_limits.maxLagSeconds);
    if (m_lag.ahead() > m_limits.maxLagSeconds)
        return QStringLiteral("the standby \"%1\" is falling behind: %2 s by the next reading (at most %3 s)")
            .arg(furthest)
            .arg(qint64(std::ceil(m_lag.ahead())))
            .arg(m_limits.maxLagSeconds);
    return QString();
}
