#pragma once

#include <QString>
#include <QStringList>
#include <QVector>

class QSqlQuery;
class RunLog;

// The instances of the warehouse control table, read whole before any repair.
class InstanceList
{
public:
    struct Instance {
        QString first;
        QString second;
    };

    static const QString kQuery;

    // Reads the whole list, or reports why it cannot be read (with the pass's own messages)
    // and returns false.
    bool read(QSqlQuery &query, RunLog &log);

    const QVector<Instance> &instances() const { return m_instances; }
    int size() const { return m_instances.size(); }
    bool isEmpty() const { return m_instances.isEmpty(); }
    const Instance &operator[](int index) const { return m_instances[index]; }
    QStringList ids() const;

private:
    QVector<Instance> m_instances;
};
