#include "app/repair/RunTally.h"

void RunTally::addChanged(const QHash<QString, qint64> &changed)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (auto it = changed.cbegin(); it != changed.cend(); ++it)
        m_changed[it.key()] += it.value();
}

qint64 RunTally::changed(const QString &instance) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_changed.value(instance);
}

qint64 RunTally::totalChanged() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    qint64 total = 0;
    for (const qint64 changed : m_changed)
        total += changed;
    return total;
}

bool RunTally::leaveRow(const LeftRow &row)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_leftNames.contains({row.instance, row.row}))
        return false;
    m_leftNames.insert({row.instance, row.row});
    m_left.append(row);
    return true;
}

void RunTally::fail(const QString &what, const QString &reason)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_failures.contains(what))
        m_failed << what;
    m_failures.insert(what, reason);
}

void RunTally::cover(qint64 units)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_covered += units;
}

void RunTally::stop(const QString &reason)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_stopReason.isEmpty())
        m_stopReason = reason;
}

QVector<RunTally::LeftRow> RunTally::leftRows() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_left;
}

int RunTally::leftRowsOf(const QString &instance) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    int count = 0;
    for (const LeftRow &row : m_left)
        count += row.instance == instance;
    return count;
}

QStringList RunTally::failures() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_failed;
}

QString RunTally::failureOf(const QString &what) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_failures.value(what);
}

qint64 RunTally::covered() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_covered;
}

QString RunTally::stopReason() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_stopReason;
}

bool RunTally::complete() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_left.isEmpty() && m_failed.isEmpty() && m_stopReason.isEmpty();
}
