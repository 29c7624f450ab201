#include "app/repair/ServerFailure.h"

#include <gtest/gtest.h>

#include <ostream>

void PrintTo(ServerFailure::Kind kind, std::ostream *os)
{
    static const char *const names[] = {"Rows", "Retry", "Connection", "Interrupted", "Run"};
    *os << names[static_cast<int>(kind)];
}

namespace {

using Kind = ServerFailure::Kind;

struct FailureCase {
    const char *name;
    const char *sqlState;
    bool connectionLost;
    bool interrupted;
    bool mayWrite;
    Kind kind;
};

class ServerFailureTest : public testing::TestWithParam<FailureCase>
{
};

TEST_P(ServerFailureTest, DecidesWhatTheRunDoesNextBySqlStateAndFactsAlone)
{
    const FailureCase &c = GetParam();
    EXPECT_EQ(ServerFailure::classify({QString::fromLatin1(c.sqlState), c.connectionLost, c.interrupted, c.mayWrite}),
        c.kind);
}

INSTANTIATE_TEST_SUITE_P(SqlStates, ServerFailureTest,
    testing::Values(FailureCase{"UniqueViolationIsTheRows", "23505", false, false, true, Kind::Rows},
        // A row-level security policy's check, met by a role that holds every privilege needed.
        FailureCase{"RefusalOfARoleThatMayWriteIsTheRows", "42501", false, false, true, Kind::Rows},
        FailureCase{"RefusalOfARoleThatMayNotWriteStopsTheRun", "42501", false, false, false, Kind::Run},
        FailureCase{"LockNotAvailableIsRetried", "55P03", false, false, true, Kind::Retry},
        FailureCase{"CancelBySomeoneElseIsRetried", "57014", false, false, true, Kind::Retry},
        FailureCase{"DeadlockIsRetried", "40P01", false, false, true, Kind::Retry},
        FailureCase{"SerializationFailureIsRetried", "40001", false, false, true, Kind::Retry},
        FailureCase{"CancelByTheRunsInterruptIsInterrupted", "57014", false, true, true, Kind::Interrupted},
        FailureCase{"AdministratorShutdownIsTheConnection", "57P01", false, false, true, Kind::Connection},
        FailureCase{"CrashShutdownIsTheConnection", "57P02", false, false, true, Kind::Connection},
        FailureCase{"CannotConnectNowIsTheConnection", "57P03", false, false, true, Kind::Connection},
        FailureCase{"ReadOnlyTransactionStopsTheRun", "25006", false, false, true, Kind::Run},
        FailureCase{"DiskFullStopsTheRun", "53100", false, false, true, Kind::Run},
        FailureCase{"IoErrorStopsTheRun", "58030", false, false, true, Kind::Run},
        FailureCase{"UndefinedTableStopsTheRun", "42P01", false, false, true, Kind::Run},
        FailureCase{"FeatureNotSupportedStopsTheRun", "0A000", false, false, true, Kind::Run},
        // A foreign-data wrapper's remote server, while the tool's own connection is alive.
        FailureCase{"RemoteUnableToConnectIsTheRows", "08001", false, false, true, Kind::Rows},
        FailureCase{"NoSqlStateWithTheConnectionLostIsTheConnection", "", true, false, false, Kind::Connection},
        FailureCase{"RefusalWithTheConnectionLostIsTheConnection", "42501", true, false, false, Kind::Connection}),
    [](const testing::TestParamInfo<FailureCase> &info) { return info.param.name; });

} // namespace
