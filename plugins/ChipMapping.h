// Which mirrors of a chip light a picture of the camera's image.
#pragma once

#include "host/QsPicture.h"
#include "host/QsSystem.h"

#include <cstdint>
#include <vector>

// The mirrors of a chip, row by row; 1 is on.
class CQsMirrors
{
public:
    explicit CQsMirrors(const CQsSizeBase<int>& chip);

    // Whether the runs lie within a picture of the chip's size.
    bool Fits(const SQsRLEPicBuf& picture) const;

    void AddAll();
    // A picture of the chip itself; what lies outside is left out.
    void AddChipPicture(const SQsRLEPicBuf& picture);
    // Switches on every mirror whose centre, mapped back to the image, falls into a lit pixel of the picture. The
    // matrix is DMD <- image, 3x3 row-major. False, and nothing switched on, when it is not affine, not finite or
    // singular, and for a picture of more than 16384 pixels on a side.
    bool AddImagePicture(const SQsRLEPicBuf& picture, const double* imageToChip);

    SQsRLEPicBuf Picture() const;

private:
    std::int64_t m_width;
    std::int64_t m_height;
    std::vector<std::uint8_t> m_on;
};

// Mirrors that are on.
std::uint64_t CountLit(const SQsRLEPicBuf& picture);

// Inverse of an affine 3x3 matrix with the last row (0, 0, 1). False, and `inverse` unchanged, for another matrix, one
// that is not finite, or a singular one.
bool InvertAffine(const double* matrix, double* inverse);
