#include "app/run/Interrupts.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

// The Windows console's control events, by the numbers Windows gives them, name the interrupt
// in the run log.
TEST(InterruptsTest, ConsoleEventsAreNamed)
{
    EXPECT_EQ(Interrupts::consoleEventName(0), QStringLiteral("Ctrl-C"));
    EXPECT_EQ(Interrupts::consoleEventName(1), QStringLiteral("Ctrl-Break"));
    EXPECT_EQ(Interrupts::consoleEventName(2), QStringLiteral("closing the console"));
    EXPECT_EQ(Interrupts::consoleEventName(6), QStringLiteral("console event 6"));
}
