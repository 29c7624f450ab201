#include "app/run/RunLock.h"
#include "app/output/Reporter.h"
#include "app/output/RunLog.h"
#include "support/LiveProcess.h"
#include "support/ToolSandbox.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QLockFile>
#include <QTemporaryDir>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

// The lock file as a run killed before it could release it left it, naming the given process and
// its program, as a run of that program would.
void writeLeftLock(const QString &path, qint64 pid, const QString &program)
{
    QByteArray content;
    {
        QLockFile writer(path);
        ASSERT_TRUE(writer.tryLock(0));
        content = ToolSandbox::read(path);
    }
    QList<QByteArray> lines = content.split('\n');
    lines[0] = QByteArray::number(pid);
    if (!program.isEmpty())
        lines[1] = QFileInfo(program).completeBaseName().toUtf8();
    ToolSandbox::write(path, lines.join('\n'));
}

} // namespace

// After a reboot process ids come back at once: the id of a killed run's lock may name this very
// run or a process started since, neither of which can hold it. The system keeps a live run's lock
// whatever id it names: a second lock of this very process is refused, not taken over.
TEST(RunLockTest, ALockIsTakenOverAtOnceOnlyWhereItsIdWasHandedOutAgain)
{
    enum Holder { ThisProcess, CreatedAfterTheLock, CreatedBeforeTheLock, ThisProcessLive };
    const struct {
        const char *name;
        Holder holder;
        bool takenAtOnce;
    } cases[] = {
        {"this very process", ThisProcess, true},
        {"a process created after the lock was written", CreatedAfterTheLock, true},
        {"a live process older than the lock", CreatedBeforeTheLock, false},
        {"a live lock of this very process", ThisProcessLive, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const QTemporaryDir data;
        const QString path = data.filePath(QLatin1String(RunLock::kFileName));
        std::unique_ptr<LiveProcess> other;
        QLockFile held(path);
        if (c.holder == ThisProcessLive)
            ASSERT_TRUE(held.tryLock(0));
        else if (c.holder != ThisProcess)
            other = std::make_unique<LiveProcess>();
        if (c.holder != ThisProcessLive)
            writeLeftLock(path, other ? other->processId() : QCoreApplication::applicationPid(),
                other ? QStringLiteral(ZENTRIX_IDLE_PATH) : QString());
        if (c.holder == CreatedAfterTheLock) {
            QFile lock(path);
            ASSERT_TRUE(lock.open(QIODevice::ReadWrite));
            ASSERT_TRUE(
                lock.setFileTime(QDateTime::currentDateTime().addSecs(-3600), QFileDevice::FileModificationTime));
        }
        RunLog log;
        const Reporter reporter(log);
        RunLock runLock(data.path());
        int looks = 0;
        EXPECT_EQ(runLock.acquire(reporter, [&looks] { return ++looks > 1; }), c.takenAtOnce);
        EXPECT_EQ(looks, c.takenAtOnce ? 0 : 2) << "a held lock is waited for";
        EXPECT_TRUE(QFile::exists(path));
    }
}
