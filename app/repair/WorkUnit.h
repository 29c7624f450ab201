#pragma once

#include <QString>
#include <QStringList>

// A piece of a run's work: one statement, committed (or, for a count, read) on its own.
struct WorkUnit {
    enum class Kind {
        // One listed instance: the product's UPDATE, or one instance's count.
        Instance,
        // Every listed instance at once: the dry run's grouped count.
        AllInstances,
        // A range of row slotCount of one relation (the table, or one of its leaf partitions).
        Range,
        // Listed rows of one relation, by their row versions.
        Rows,
        // The rows of one relation that other sessions wrote since a point of the run (and every
        // row of instances the run's start did not list): read to find what the run could not see.
        WrittenSince,
    };

    Kind kind = Kind::Instance;
    // Instance: its index in the instance list. Rows: the instance they were read for, or -1
    // when they may belong to any listed one.
    int instance = -1;
    // Range and Rows: the relation's index in the table's relations.
    int relation = 0;
    // Range: slot positions [first, end), a slot being one item of one block. WrittenSince:
    // blocks [first, end), end -1 for the relation's end.
    qint64 first = 0;
    qint64 end = 0;
    // Rows: ctids in their text form, "(block,item)".
    QStringList tids;
    // Tried again after the others so often.
    int tries = 0;
    // The try that waits on no row lock: the rows another session holds are skipped, and the
    // unit is not tried again.
    bool lastTry = false;
    // Its connection was lost so often while it ran.
    int losses = 0;
    // The number of the unit the mode handed out that this one is a part of (a range, and the
    // parts a failure split it into), for the coverage of the run; -1 for none.
    int rootUnit = -1;
    // Rows: read anew after another writer changed some of them between the read and the
    // write; bounded, so a writer that keeps rewriting cannot keep the run going.
    int rereads = 0;
    // The rows of a last try that were left because they were locked or rewritten meanwhile:
    // what is still to do of them is not tried once more.
    bool leftovers = false;
    // The closing round of rows written during the run that the unit belongs to; 0 for the
    // run's own list.
    int round = 0;
};
