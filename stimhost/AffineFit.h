// Affine mapping between two planes from pairs of points, some of which may be wrong.
#pragma once

#include "stimhost/Matrix3.h"

#include <string>
#include <vector>

namespace Stimhost {

struct SPointPair
{
    CPoint from; // known exactly
    CPoint to;   // measured
};

// Limits in units of the measured points.
struct SFitLimits
{
    double inlier = 2.0;          // a pair that is further off does not take part
    double largestRms = 1.0;      // of the pairs that do
    double largestCondition = 50; // of the points' spread, on either side
};

struct SAffineFit
{
    std::string refusal;           // why the mapping must not be used; empty: it may be
    CMatrix3 matrix = s_identity3; // to <- from; the identity when nothing could be fitted
    std::vector<CPoint> residuals; // measured less mapped, of every pair
    std::vector<bool> inliers;     // of every pair
    unsigned inlierCount = 0;
    double rms = 0.0;     // of the inliers' residuals, as lengths
    double largest = 0.0; // likewise
    // Ratio of the longest to the shortest extent (standard deviation along the principal axes) of the inliers, the
    // worse of the two sides: 1 is best, and infinite are points on a line.
    double condition = 0.0;
};

// Least squares over the pairs that agree: consensus of random triples first, then repeated fits without what is
// further off than the others by far. The same pairs give the same fit. Refused: fewer than 4 pairs, fewer than half of
// them agreeing, points on a line or nearly so, residuals above the limit, numbers that are not finite.
SAffineFit FitAffine(const std::vector<SPointPair>& pairs, const SFitLimits& limits);

} // namespace Stimhost
