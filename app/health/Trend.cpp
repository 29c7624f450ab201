#include "app/health/Trend.h"

#include <algorithm>

Trend::Trend(qint64 readIntervalMs)
    : m_readIntervalMs(readIntervalMs)
    , m_horizonMs(readIntervalMs)
{ }

void Trend::read(double value, qint64 atMs, bool working)
{
    if (m_readAt >= 0 && atMs > m_readAt) {
        const qint64 sinceMs = atMs - m_readAt;
        m_horizonMs = std::max(m_readIntervalMs, sinceMs);
        if (working)
            m_growthPerMs = std::max(0.0, (value - m_value) / double(sinceMs));
    }
    m_value = value;
    m_readAt = atMs;
}

double Trend::ahead() const
{
    return m_value <= 0 ? 0 : m_value + m_growthPerMs * double(m_horizonMs);
}
