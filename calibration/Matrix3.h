// The 3x3 matrices of a calibration: row-major, for columns (x, y, 1).
#pragma once

#include <vector>

inline std::vector<double> QsIdentity3()
{
    return {1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0};
}
