#include "bench/Paired.h"

#include <algorithm>
#include <cmath>

namespace QsBench {

namespace {

std::vector<SRow>& Table()
{
    static std::vector<SRow> rows;
    return rows;
}

bool s_bFailed = false;

} // namespace

void AddRow(const SRow& row)
{
    Table().push_back(row);
}

const std::vector<SRow>& Rows()
{
    return Table();
}

void Fail(benchmark::State& state, const std::string& message)
{
    s_bFailed = true;
    state.SkipWithError(message.c_str());
}

bool HasFailed()
{
    return s_bFailed;
}

double Percentile(std::vector<double> values, double fraction)
{
    const auto rank = static_cast<std::size_t>(std::ceil(fraction * static_cast<double>(values.size())));
    const auto place = values.begin() + static_cast<std::ptrdiff_t>(rank == 0 ? 0 : rank - 1);
    std::nth_element(values.begin(), place, values.end());
    return *place;
}

void ReportMedians(const SSamples& samples, const std::string& what, const std::string& limit, double dReach)
{
    AddRow({what, limit, Median(samples.ours), Median(samples.limit), dReach});
}

} // namespace QsBench
