// Degrees and radians.
#pragma once

// Shortened on purpose: saved scan areas and the mappings of saved calibrations were made with this value, and what is
// computed now must equal them.
constexpr double s_qsPi = 3.1415926535898;
