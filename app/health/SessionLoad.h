#pragma once

#include <QSqlDatabase>

// What a writing run's sessions set so that their work reaches the server's disk and cores
// evenly. Any role may set both, so nothing here can fail a connection.
class SessionLoad
{
public:
    // The pages a session writes out are flushed as it goes, at most this much at a time (the
    // most the server allows): left to the kernel, a table's worth of them reaches the disk in
    // bursts, and the product's commits wait behind each. Beside a writer of 200 updates a second,
    // its 99th percentile went from 334 ms to 106 ms with 256kB and the run at full pace; at
    // --pace 50, 2MB gave 46 ms against 256kB's 96 ms.
    static constexpr const char *kFlushAfter = "2MB";

    // serial: the run keeps to a pace.
    explicit SessionLoad(bool serial);

    // On a connection of the run, as it is opened (and opened again).
    void apply(const QSqlDatabase &database) const;

private:
    // Under a pace a session keeps to one process: parallel workers would take the cores the pace
    // leaves the product.
    const bool m_serial;
};
