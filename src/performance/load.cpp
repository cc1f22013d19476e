// The arithmetic of the load figures, in the manner of a Unix load average.
#include "performance/performance.h"

// Busy processors, plus one for each waiting thread beyond the first two.
double PdhInstantLoad(double cpuPercent, long long queue, int processors)
{
    double load = cpuPercent * 0.01 * processors;
    if ((double)queue > 2.0)
        load += (double)queue - 2.0;
    return load;
}

// With a sample every five seconds, the factors 0.92, 0.9835 and 0.9945 are
// about exp(-5/60), exp(-5/300) and exp(-5/900): averages over about 1, 5 and
// 15 minutes. Each pair of factors adds up to exactly 1.
void PdhUpdateAverages(double load, double averages[3])
{
    static const double weights[3][2] = {
        {0.08, 0.92},
        {0.0165, 0.9835},
        {0.0055, 0.9945},
    };
    for (int i = 0; i < 3; i++)
        averages[i] = load * weights[i][0] + averages[i] * weights[i][1];
}
