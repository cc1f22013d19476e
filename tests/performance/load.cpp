// The load figures' arithmetic: the instant load of one sample and the three
// decaying averages, checked against figures worked out by hand and printed
// the way --cpuload prints them.
#include <gtest/gtest.h>
#include <stdio.h>

#include <string>

#include "performance/performance.h"

namespace {

std::string Printed(const double figures[3])
{
    char text[64];
    snprintf(text, sizeof text, "%8.2lf %8.2lf %8.2lf\n", figures[0], figures[1], figures[2]);
    return text;
}

TEST(InstantLoad, BusyProcessorsCountAndOnlyTheQueueBeyondTwoAdds)
{
    EXPECT_DOUBLE_EQ(PdhInstantLoad(100.0, 2, 4), 4.0) << "two waiting threads are free";
    EXPECT_DOUBLE_EQ(PdhInstantLoad(100.0, 5, 4), 7.0) << "each one more counts as a busy processor";
    EXPECT_DOUBLE_EQ(PdhInstantLoad(100.0, 3, 4), 5.0);
    EXPECT_DOUBLE_EQ(PdhInstantLoad(0.0, 0, 4), 0.0);
    EXPECT_DOUBLE_EQ(PdhInstantLoad(50.0, 0, 2), 1.0);
    EXPECT_DOUBLE_EQ(PdhInstantLoad(25.0, 1, 8), 2.0);
    EXPECT_DOUBLE_EQ(PdhInstantLoad(0.0, 12, 1), 10.0);
}

TEST(Averages, AFirstLoadOfFourFromZeroGivesTheKnownFigures)
{
    double averages[3] = {0.0, 0.0, 0.0};
    PdhUpdateAverages(4.0, averages);
    EXPECT_NEAR(averages[0], 0.32, 1e-12);
    EXPECT_NEAR(averages[1], 0.066, 1e-12);
    EXPECT_NEAR(averages[2], 0.022, 1e-12);
    EXPECT_EQ(Printed(averages), "    0.32     0.07     0.02\n");
}

TEST(Averages, SteadyLoadApproachesItFastestInTheFastFigure)
{
    double averages[3] = {0.0, 0.0, 0.0};
    // Twelve samples: one minute.
    for (int i = 0; i < 12; i++)
        PdhUpdateAverages(2.0, averages);
    // 2 * (1 - 0.92^12), 2 * (1 - 0.9835^12), 2 * (1 - 0.9945^12)
    EXPECT_NEAR(averages[0], 1.2647, 1e-4);
    EXPECT_NEAR(averages[1], 0.3620, 1e-4);
    EXPECT_NEAR(averages[2], 0.1281, 1e-4);
    EXPECT_GT(averages[0], averages[1]);
    EXPECT_GT(averages[1], averages[2]);
    // After two hours of it the slow figure has caught up too.
    for (int i = 0; i < 1428; i++)
        PdhUpdateAverages(2.0, averages);
    EXPECT_EQ(Printed(averages), "    2.00     2.00     2.00\n");
}

TEST(Averages, AnIdleMachineDecaysEachFigureByItsOwnFactor)
{
    double averages[3] = {3.0, 3.0, 3.0};
    PdhUpdateAverages(PdhInstantLoad(0.0, 0, 4), averages);
    EXPECT_NEAR(averages[0], 3.0 * 0.92, 1e-12);
    EXPECT_NEAR(averages[1], 3.0 * 0.9835, 1e-12);
    EXPECT_NEAR(averages[2], 3.0 * 0.9945, 1e-12);
    for (int i = 0; i < 2000; i++)
        PdhUpdateAverages(0.0, averages);
    EXPECT_EQ(Printed(averages), "    0.00     0.00     0.00\n");
    EXPECT_GE(averages[2], 0.0);
}

TEST(Averages, EachFigureKeepsItsPlace)
{
    double averages[3] = {1.0, 2.0, 3.0};
    PdhUpdateAverages(1.0, averages);
    EXPECT_NEAR(averages[0], 1.0, 1e-12) << "a load equal to the figure leaves it";
    EXPECT_NEAR(averages[1], 0.0165 + 2.0 * 0.9835, 1e-12);
    EXPECT_NEAR(averages[2], 0.0055 + 3.0 * 0.9945, 1e-12);
}

TEST(CpuLoad, AProcessWithoutTheMonitorReportsZeros)
{
    double fast = -1, middle = -1, slow = -1;
    EXPECT_EQ(PdhGetCpuLoad(&fast, &middle, &slow), 0);
    const double figures[3] = {fast, middle, slow};
    EXPECT_EQ(Printed(figures), "    0.00     0.00     0.00\n");
}

}  // namespace
