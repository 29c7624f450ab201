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

enum class Holder {
    ThisProcess,
    CreatedAfterTheLock,
    CreatedBeforeTheLock,
};

struct RunLockCase {
    const char *name;
    Holder holder;
    bool takenAtOnce;
};

void PrintTo(const RunLockCase &c, std::ostream *os)
{
    *os << c.name;
}

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

class RunLockTest : public testing::TestWithParam<RunLockCase>
{
};

} // namespace

// After a reboot process ids come back at once: the id of a killed run's lock may name this very
// run or a process started since, neither of which can hold it.
TEST_P(RunLockTest, ALockWhoseIdWasHandedOutAgainIsTakenOverAtOnce)
{
    const RunLockCase &c = GetParam();
    const QTemporaryDir data;
    const QString path = data.filePath(QLatin1String(RunLock::kFileName));
    std::unique_ptr<LiveProcess> other;
    if (c.holder != Holder::ThisProcess)
        other = std::make_unique<LiveProcess>();
    writeLeftLock(path, other ? other->processId() : QCoreApplication::applicationPid(),
        other ? QStringLiteral(ZENTRIX_IDLE_PATH) : QString());
    if (c.holder == Holder::CreatedAfterTheLock) {
        QFile lock(path);
        ASSERT_TRUE(lock.open(QIODevice::ReadWrite));
        ASSERT_TRUE(lock.setFileTime(QDateTime::currentDateTime().addSecs(-3600), QFileDevice::FileModificationTime));
    }
    RunLog log;
    const Reporter reporter(log);
    RunLock runLock(data.path());
    int looks = 0;
    const bool acquired = runLock.acquire(reporter, [&looks] { return ++looks > 1; });
    EXPECT_EQ(acquired, c.takenAtOnce);
    EXPECT_EQ(looks, c.takenAtOnce ? 0 : 2) << "a live holder's lock is waited for";
}

INSTANTIATE_TEST_SUITE_P(Holders, RunLockTest,
    testing::Values(RunLockCase{"this very process", Holder::ThisProcess, true},
        RunLockCase{"a process created after the lock was written", Holder::CreatedAfterTheLock, true},
        RunLockCase{"a live process older than the lock", Holder::CreatedBeforeTheLock, false}));

// The system keeps a live run's lock whatever id it names: a second lock of this very process
// is refused, not taken over.
TEST(RunLockHeldTest, ALiveLockOfThisProcessIsNotTakenOver)
{
    const QTemporaryDir data;
    QLockFile held(data.filePath(QLatin1String(RunLock::kFileName)));
    ASSERT_TRUE(held.tryLock(0));
    RunLog log;
    const Reporter reporter(log);
    RunLock runLock(data.path());
    EXPECT_FALSE(runLock.acquire(reporter, [] { return true; }));
    EXPECT_TRUE(QFile::exists(data.filePath(QLatin1String(RunLock::kFileName))));
}
