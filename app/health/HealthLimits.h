#pragma once

#include <QString>

// How far a writing run lets the product's server be burdened before it starts no new unit, and
// the share of time its connections work. A limit of zero is switched off.
struct HealthLimits {
    // A standby further behind than this in replaying falls out of use for failover and reads.
    static constexpr int kDefaultMaxLagSeconds = 10;
    // WAL waiting for the archiver stays in pg_wal; a pg_wal that fills its disk stops the server.
    static constexpr int kDefaultMaxArchiveBacklogMb = 1024;
    // Working all the time: no rest between units.
    static constexpr int kFullPace = 100;
    static constexpr int kDefaultPacePercent = kFullPace;
    // A pause this long is a server that will not recover by itself: the run ends, resumable.
    static constexpr int kDefaultMaxPauseSeconds = 3600;

    int maxLagSeconds = kDefaultMaxLagSeconds;
    int maxArchiveBacklogMb = kDefaultMaxArchiveBacklogMb;
    // While this file exists no new unit starts; empty for none.
    QString pauseFile;
    int pacePercent = kDefaultPacePercent;
    int maxPauseSeconds = kDefaultMaxPauseSeconds;
};
