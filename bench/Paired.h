// Measurements in pairs: an operation of ours and the bare operation that it cannot do without, its limit, timed in
// turn inside one benchmark, so that whatever disturbs the machine disturbs both.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace QsBench {

// One line of the final table. The ratio is ours / limit.
struct SRow
{
    std::string what;
    std::string limit;
    double dOurs = 0.0;
    double dLimit = 0.0;
    double dReach = 0.0; // largest ratio that is good enough
    std::string unit = "ns";

    double Ratio() const { return dOurs / dLimit; }
    bool IsReached() const { return Ratio() <= dReach; }
};

void AddRow(const SRow& row);
const std::vector<SRow>& Rows();

// Ends the benchmark as one that could not be measured; the program then answers 1.
void Fail(benchmark::State& state, const std::string& message);
bool HasFailed();

// Smallest value that is not below `fraction` of the values; 0.5: the median. Needs at least one value.
double Percentile(std::vector<double> values, double fraction);
inline double Median(const std::vector<double>& values)
{
    return Percentile(values, 0.5);
}

// Monotonic time [ns].
inline double NowNs()
{
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Before the next sample: a thread that has ended gives its stack back, and one that begins to wait falls asleep.
inline void Settle()
{
    std::this_thread::sleep_for(std::chrono::microseconds(300));
}

// Time of `count` operations, for each one [ns].
template <class Operation>
double TimeEach(unsigned count, Operation operation)
{
    const double t0 = NowNs();
    for (unsigned i = 0; i < count; ++i)
        operation();
    return (NowNs() - t0) / count;
}

struct SSamples
{
    std::vector<double> ours;
    std::vector<double> limit;
};

// Runs both once for each iteration of the benchmark, in alternating order, after three rounds to warm up. Each yields
// the time of one operation [ns], so that it measures what belongs to it and nothing else.
template <class Ours, class Limit>
SSamples MeasurePairs(benchmark::State& state, Ours ours, Limit limit)
{
    for (int i = 0; i < 3; ++i)
    {
        ours();
        limit();
    }
    SSamples samples;
    bool bOursFirst = true;
    for (auto _ : state)
    {
        if (bOursFirst)
            samples.ours.push_back(ours());
        samples.limit.push_back(limit());
        if (!bOursFirst)
            samples.ours.push_back(ours());
        bOursFirst = !bOursFirst;
        state.SetIterationTime(samples.ours.back() * 1e-9);
    }
    return samples;
}

// Adds the line of the medians.
void ReportMedians(const SSamples& samples, const std::string& what, const std::string& limit, double dReach);

} // namespace QsBench
