#pragma once

#include <QString>
#include <QStringList>
#include <QVector>

class QSqlQuery;
class Reporter;

// The instances of the warehouse control table, read whole before any repair.
class InstanceList
{
public:
    struct Instance {
        QString id;
        // The lower bound of the request filter: the instance's own id, not the stored last
        // request id, as it has always been.
        QString requestFloor;
    };

    static const QString kQuery;

    // Reads the whole list, or reports why it cannot be read (with the pass's own messages)
    // and returns false.
    bool read(QSqlQuery &query, const Reporter &reporter);

    const QVector<Instance> &instances() const { return m_instances; }
    int size() const { return m_instances.size(); }
    bool isEmpty() const { return m_instances.isEmpty(); }
    const Instance &operator[](int index) const { return m_instances[index]; }
    QStringList ids() const;

private:
    QVector<Instance> m_instances;
};
