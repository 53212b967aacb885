#include "stimhost/AffineFit.h"

#include "stimhost/Text.h"

#include <Eigen/Dense>

#include <algorithm>
#include <limits>
#include <optional>
#include <random>

namespace Stimhost {

namespace {

constexpr unsigned s_fewestPairs = 4; // three fit any mapping without a residual that would tell
constexpr unsigned s_triples = 500;   // 40 % of wrong pairs leave a chance of 1e-53 that every triple has one
constexpr unsigned s_refits = 20;

using Flags = std::vector<bool>;

bool IsFinite(const SPointPair& pair)
{
    return std::isfinite(pair.from.x) && std::isfinite(pair.from.y) && std::isfinite(pair.to.x) &&
           std::isfinite(pair.to.y);
}

// Longest by shortest extent of the chosen points.
double ConditionOf(const std::vector<SPointPair>& pairs, const Flags& chosen, CPoint SPointPair::*side)
{
    Eigen::Vector2d mean = Eigen::Vector2d::Zero();
    double count = 0.0;
    for (std::size_t i = 0; i < pairs.size(); ++i)
        if (chosen[i])
        {
            mean += Eigen::Vector2d((pairs[i].*side).x, (pairs[i].*side).y);
            count += 1.0;
        }
    mean /= count;
    Eigen::MatrixXd centred(static_cast<Eigen::Index>(count), 2);
    Eigen::Index row = 0;
    for (std::size_t i = 0; i < pairs.size(); ++i)
        if (chosen[i])
            centred.row(row++) << (pairs[i].*side).x - mean.x(), (pairs[i].*side).y - mean.y();
    const Eigen::Vector2d extents = Eigen::JacobiSVD<Eigen::MatrixXd>(centred).singularValues();
    return extents[1] > 0.0 ? extents[0] / extents[1] : std::numeric_limits<double>::infinity();
}

// None when the chosen points lie on a line. Centred and scaled first, so that the numbers stay well behaved wherever
// the points lie.
std::optional<CMatrix3> LeastSquares(const std::vector<SPointPair>& pairs, const Flags& chosen)
{
    const auto count = static_cast<Eigen::Index>(std::count(chosen.begin(), chosen.end(), true));
    Eigen::MatrixXd from(count, 2);
    Eigen::MatrixXd to(count, 2);
    Eigen::Index row = 0;
    for (std::size_t i = 0; i < pairs.size(); ++i)
        if (chosen[i])
        {
            from.row(row) << pairs[i].from.x, pairs[i].from.y;
            to.row(row++) << pairs[i].to.x, pairs[i].to.y;
        }
    const Eigen::RowVector2d fromMean = from.colwise().mean();
    const Eigen::RowVector2d toMean = to.colwise().mean();
    from.rowwise() -= fromMean;
    to.rowwise() -= toMean;
    const double scale = from.cwiseAbs().maxCoeff();
    if (!(scale > 0.0))
        return std::nullopt;
    const Eigen::ColPivHouseholderQR<Eigen::MatrixXd> solver(from / scale);
    if (solver.rank() < 2)
        return std::nullopt;
    const Eigen::Matrix2d linear = solver.solve(to).transpose() / scale;
    const Eigen::Vector2d shift = toMean.transpose() - linear * fromMean.transpose();
    return CMatrix3{linear(0, 0), linear(0, 1), shift[0], linear(1, 0), linear(1, 1), shift[1], 0.0, 0.0, 1.0};
}

Flags Within(const std::vector<SPointPair>& pairs, const CMatrix3& matrix, double distance)
{
    Flags within(pairs.size());
    for (std::size_t i = 0; i < pairs.size(); ++i)
        within[i] = Distance(Mapped(matrix, pairs[i].from), pairs[i].to) <= distance;
    return within;
}

// The largest set of pairs that agree with one mapping through three of them.
Flags Consensus(const std::vector<SPointPair>& pairs, double distance)
{
    std::mt19937 random(1); // fixed: the same pairs give the same fit
    Flags best(pairs.size());
    std::ptrdiff_t bestCount = 0;
    for (unsigned attempt = 0; attempt < s_triples; ++attempt)
    {
        Flags triple(pairs.size());
        for (unsigned chosen = 0; chosen < 3;)
        {
            const std::size_t i = random() % pairs.size();
            chosen += triple[i] ? 0 : 1;
            triple[i] = true;
        }
        const std::optional<CMatrix3> matrix = LeastSquares(pairs, triple);
        if (!matrix)
            continue;
        Flags within = Within(pairs, *matrix, distance);
        const std::ptrdiff_t count = std::count(within.begin(), within.end(), true);
        if (count > bestCount)
        {
            bestCount = count;
            best = std::move(within);
        }
        if (bestCount == static_cast<std::ptrdiff_t>(pairs.size()))
            break;
    }
    return best;
}

// Beyond that a pair is off for a reason of its own, such as dust on its spot: five times the median distance, which is
// six standard deviations. Never so small that exact pairs would lose some to rounding.
double Outlying(const std::vector<SPointPair>& pairs, const CMatrix3& matrix, const Flags& inliers, double limit)
{
    std::vector<double> distances;
    for (std::size_t i = 0; i < pairs.size(); ++i)
        if (inliers[i])
            distances.push_back(Distance(Mapped(matrix, pairs[i].from), pairs[i].to));
    const auto middle = distances.begin() + static_cast<std::ptrdiff_t>(distances.size() / 2);
    std::nth_element(distances.begin(), middle, distances.end());
    return std::clamp(5.0 * *middle, limit / 20.0, limit);
}

void Measure(const std::vector<SPointPair>& pairs, SAffineFit& fit)
{
    double squares = 0.0;
    for (std::size_t i = 0; i < pairs.size(); ++i)
    {
        const CPoint mapped = Mapped(fit.matrix, pairs[i].from);
        fit.residuals.push_back({pairs[i].to.x - mapped.x, pairs[i].to.y - mapped.y});
        if (!fit.inliers[i])
            continue;
        const double length = std::hypot(fit.residuals[i].x, fit.residuals[i].y);
        squares += length * length;
        fit.largest = std::max(fit.largest, length);
    }
    fit.rms = std::sqrt(squares / fit.inlierCount);
    fit.condition =
        std::max(ConditionOf(pairs, fit.inliers, &SPointPair::from), ConditionOf(pairs, fit.inliers, &SPointPair::to));
}

std::string Refusal(const SAffineFit& fit, std::size_t pairs, const SFitLimits& limits)
{
    // Written so that a value that is no number is refused, too.
    if (!(fit.condition <= limits.largestCondition))
        return "the spots lie on a line, or nearly so: expected a condition of at most " +
               Number(limits.largestCondition, 0) + ", found " +
               (std::isfinite(fit.condition) ? Number(fit.condition, 0) : std::string("infinity"));
    if (fit.inlierCount < s_fewestPairs || 2 * fit.inlierCount < pairs)
        return "the spots do not agree with one mapping: " + std::to_string(fit.inlierCount) + " of " +
               std::to_string(pairs) + " do";
    if (!(fit.rms <= limits.largestRms))
        return "expected a root mean square of at most " + Number(limits.largestRms, 2) + " px, found " +
               Number(fit.rms, 2);
    return {};
}

} // namespace

SAffineFit FitAffine(const std::vector<SPointPair>& pairs, const SFitLimits& limits)
{
    SAffineFit fit;
    fit.inliers.assign(pairs.size(), false);
    if (pairs.size() < s_fewestPairs)
    {
        fit.refusal =
            "expected at least " + std::to_string(s_fewestPairs) + " spots, found " + std::to_string(pairs.size());
        return fit;
    }
    if (!std::all_of(pairs.begin(), pairs.end(), &IsFinite))
    {
        fit.refusal = "a point is not a number";
        return fit;
    }
    fit.inliers = Consensus(pairs, limits.inlier);
    std::optional<CMatrix3> matrix;
    for (unsigned i = 0; i < s_refits; ++i)
    {
        if (std::count(fit.inliers.begin(), fit.inliers.end(), true) < 3 ||
            !(matrix = LeastSquares(pairs, fit.inliers)))
        {
            fit.refusal = "the spots lie on a line";
            fit.inliers.assign(pairs.size(), false);
            return fit;
        }
        Flags within = Within(pairs, *matrix, Outlying(pairs, *matrix, fit.inliers, limits.inlier));
        if (within == fit.inliers)
            break;
        fit.inliers = std::move(within);
    }
    fit.matrix = *matrix;
    fit.inlierCount = static_cast<unsigned>(std::count(fit.inliers.begin(), fit.inliers.end(), true));
    if (fit.inlierCount == 0)
    {
        fit.refusal = "the spots do not agree with any mapping";
        return fit;
    }
    Measure(pairs, fit);
    fit.refusal = Refusal(fit, pairs.size(), limits);
    return fit;
}

} // namespace Stimhost
