// The measured matrices, the corrections for the camera, and the mappings that follow from both.
#include "tests/calibration/CalibrationTest.h"
#include "tests/support/DoubleDouble.h"

#include <cmath>
#include <limits>
#include <random>

using namespace QsTest;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

constexpr double s_nan = std::numeric_limits<double>::quiet_NaN();
constexpr double s_inf = std::numeric_limits<double>::infinity();

class Mapping : public CalibrationTest
{
protected:
    void TurnTo(double degrees)
    {
        EXPECT_EQ(0, m_calibration.SetCameraRotationCurrent(degrees));
        EXPECT_EQ(0, m_calibration.UpdateRotationMatrix());
    }
    void FlipBy(double flip) { m_owner.flip[3] = flip; }
    void CentreAt(const Matrix& translation)
    {
        m_owner.frame = {0, 0, static_cast<int>(2 * translation[0]), static_cast<int>(2 * translation[1])};
        EXPECT_EQ(0, m_calibration.UpdateTranslationVector());
    }
};

Matrix MatrixOf(const Json& json)
{
    Matrix matrix;
    for (const Json& element : json.GetArray())
        matrix.push_back(ToDouble(element));
    return matrix;
}

// ------------------------------------------------------------------------------------------------- reference values

TEST_F(Mapping, RotationAgreesWithEveryReferenceValue)
{
    for (const Json* const vector : VectorsOf("UpdateRotationMatrix"))
    {
        TurnTo(ToDouble(Member(*vector, "input")));
        EXPECT_THAT(Rotation(m_calibration), AreReference(MatrixOf(Member(*vector, "output")), 3))
            << Member(*vector, "id").GetString();
    }
}

TEST_F(Mapping, FlipAgreesWithEveryReferenceValue)
{
    for (const Json* const vector : VectorsOf("UpdateFlipMatrix"))
    {
        const Matrix input = MatrixOf(Member(*vector, "input"));
        std::copy(input.begin(), input.end(), std::begin(m_owner.flip));
        EXPECT_EQ(0, m_calibration.UpdateFlipMatrix());
        EXPECT_THAT(Flip(m_calibration), ElementsAreArray(MatrixOf(Member(*vector, "output"))))
            << Member(*vector, "id").GetString();
    }
}

TEST_F(Mapping, TranslationAgreesWithEveryReferenceValue)
{
    for (const Json* const vector : VectorsOf("UpdateTranslationVector"))
    {
        const Json& input = Member(*vector, "input");
        m_owner.frame = {input[0].GetInt(), input[1].GetInt(), input[2].GetInt(), input[3].GetInt()};
        EXPECT_EQ(0, m_calibration.UpdateTranslationVector());
        EXPECT_THAT(Translation(m_calibration), ElementsAreArray(MatrixOf(Member(*vector, "output"))))
            << Member(*vector, "id").GetString();
    }
}

TEST_F(Mapping, AgreesWithEveryReferenceValue)
{
    for (const Json* const vector : VectorsOf("UpdateMapping"))
    {
        const Json& input = Member(*vector, "input");
        const Json& output = Member(*vector, "output");
        if (input.HasMember("rotation"))
        {
            FlipBy(ToDouble(Member(input, "flip")));
            EXPECT_EQ(0, m_calibration.UpdateFlipMatrix());
            TurnTo(ToDouble(Member(input, "rotation")));
            CentreAt(MatrixOf(Member(input, "translation")));
            EXPECT_THAT(Translation(m_calibration), ElementsAreArray(MatrixOf(Member(input, "translation"))));
        }
        else
        {
            m_calibration.SetCameraRotationCurrent(0.0);
            FlipBy(1.0);
            EXPECT_EQ(0, m_calibration.UpdateFlipMatrix());
            CentreAt({0, 0, 1});
        }
        const Matrix before = MappingD2C(m_calibration);
        EXPECT_EQ(0, m_calibration.SetCalibrationCamToDMD(MatrixOf(Member(input, "camToDmd"))));
        EXPECT_THAT(MappingC2D(m_calibration), AreReference(MatrixOf(Member(output, "camToDmd")), 3))
            << Member(*vector, "id").GetString();
        const Json& inverse = Member(output, "dmdToCam");
        EXPECT_THAT(MappingD2C(m_calibration), AreReference(inverse.IsNull() ? before : MatrixOf(inverse), 3))
            << Member(*vector, "id").GetString();
    }
}

// ---------------------------------------------------------------------------------------------------- the corrections

// The shortened pi: with the full one the cosine of a right angle would be 6e-17.
TEST_F(Mapping, ARightAngleKeepsTheShortenedPi)
{
    TurnTo(90.0);
    const Matrix rotation = Rotation(m_calibration);
    EXPECT_NEAR(-3.49148133884e-15, rotation[0], 1e-23);
    EXPECT_EQ(rotation[0], rotation[4]);
    EXPECT_EQ(-1.0, rotation[1]);
    EXPECT_EQ(1.0, rotation[3]);
    EXPECT_THAT(Matrix(rotation.begin() + 5, rotation.end()), ElementsAre(0, 0, 0, 1));
    EXPECT_EQ(0.0, rotation[2]);
}

TEST_F(Mapping, RotationIsThatOfTheAngleTimesTheShortenedPi)
{
    std::mt19937_64 random(4);
    std::uniform_real_distribution<double> degrees(0.0, 360.0);
    const CDoubleDouble pi = CDoubleDouble::FromText("3.1415926535898");
    for (int i = 0; i < 50000; ++i)
    {
        const double angle = i < 360 ? i : degrees(random);
        m_calibration.SetCameraRotationCurrent(angle);
        CDoubleDouble sine, cosine;
        CDoubleDouble::SinCos(CDoubleDouble(angle) * pi / CDoubleDouble(180.0), sine, cosine);
        const Matrix rotation = Rotation(m_calibration);
        // The angle is rounded three times on a scale of up to 2 pi, 9e-16 each at most; the full pi would be off by
        // 1e-14 at 270 degrees.
        ASSERT_THAT(rotation,
                    AreNear({cosine.High(), -sine.High(), 0, sine.High(), cosine.High(), 0, 0, 0, 1}, 2.5e-15, 3))
            << angle;
    }
}

TEST_F(Mapping, OnlyTheFirstAndTheLastAxisElementMakeAFlip)
{
    const auto flipOf = [this](double a, double b, double c, double d)
    {
        const double reference[] = {a, b, c, d};
        std::copy(std::begin(reference), std::end(reference), std::begin(m_owner.flip));
        EXPECT_EQ(0, m_calibration.UpdateFlipMatrix());
        Matrix flip = Flip(m_calibration);
        const double element = flip[4];
        flip[4] = 1.0;
        EXPECT_EQ(Identity(), flip);
        return element;
    };
    EXPECT_EQ(1.0, flipOf(10.0, 5.0, 6.0, 10.00005));
    EXPECT_EQ(-1.0, flipOf(10.0, 5.0, 6.0, 10.001));
    EXPECT_EQ(-1.0, flipOf(10.001, 5.0, 6.0, 10.0)); // either way round
    EXPECT_EQ(1.0, flipOf(-1.0, 9.0, -9.0, -1.0));
    EXPECT_EQ(-1.0, flipOf(1.0, 0.0, 0.0, -1.0));
    EXPECT_EQ(1.0, flipOf(0.0, 1.0, -1.0, 0.0)); // turned, not flipped, and mirrored but not told by these two
    EXPECT_EQ(-1.0, flipOf(0.0, 0.0, 0.0, 0.00011));
    EXPECT_EQ(1.0, flipOf(0.0, 0.0, 0.0, 0.00009));
    EXPECT_EQ(-1.0, flipOf(s_inf, 0.0, 0.0, 0.0));
    EXPECT_EQ(1.0, flipOf(s_nan, 0.0, 0.0, 0.0)); // not known to be more apart
}

TEST_F(Mapping, AFlipThatTheOwnerDoesNotTellBecomesNone)
{
    FlipBy(-1.0);
    m_calibration.SetCalibrationCamToDMD(CamToDMD());
    EXPECT_EQ(0, m_calibration.UpdateFlipMatrix());
    EXPECT_EQ(-0.05, MappingC2D(m_calibration)[1]);
    m_owner.flipStatus = 5;
    EXPECT_EQ(-9, m_calibration.UpdateFlipMatrix());
    EXPECT_EQ(Identity(), Flip(m_calibration));
    EXPECT_EQ(CamToDMD(), MappingC2D(m_calibration)); // the mapping follows
    m_owner.flipStatus = 0;
    EXPECT_EQ(0, m_calibration.UpdateFlipMatrix());
    EXPECT_EQ(-1.0, Flip(m_calibration)[4]);
    EXPECT_EQ(-0.05, MappingC2D(m_calibration)[1]);
}

TEST_F(Mapping, TranslationIsTheCentreInWholePixels)
{
    const auto centreOf = [this](const CQsRectBase<int>& frame)
    {
        m_owner.frame = frame;
        EXPECT_EQ(0, m_calibration.UpdateTranslationVector());
        return Translation(m_calibration);
    };
    EXPECT_THAT(centreOf({0, 0, 2047, 1535}), ElementsAre(1023.0, 767.0, 1.0));
    EXPECT_THAT(centreOf({0, 0, 2048, 1536}), ElementsAre(1024.0, 768.0, 1.0));
    EXPECT_THAT(centreOf({100, 200, 111, 203}), ElementsAre(5.0, 1.0, 1.0)); // wherever it begins
    EXPECT_THAT(centreOf({0, 0, -3, -1}), ElementsAre(-1.0, 0.0, 1.0));      // towards 0
    EXPECT_THAT(centreOf({0, 0, 0, 0}), ElementsAre(0.0, 0.0, 1.0));
}

TEST_F(Mapping, TheOwnerIsAskedForTheFormatWithAnEmptyRecord)
{
    m_owner.formatGiven.sName = L"x";
    m_owner.formatGiven.dGain = 0.0;
    m_owner.frame = {0, 0, 4, 4};
    m_calibration.UpdateTranslationVector();
    m_calibration.UpdateTranslationVector(); // not the record of the first time
    const SQsGrabberFormatValue& given = m_owner.formatGiven;
    EXPECT_EQ(L"", given.sName);
    EXPECT_EQ(L"", given.sUserName);
    EXPECT_EQ(-1.0, given.dExposureMs);
    EXPECT_EQ(-1.0, given.dGain);
    EXPECT_EQ(0, given.rcFormat.right);
    EXPECT_EQ(0, given.rcRegion.right);
}

TEST_F(Mapping, ATranslationThatTheOwnerDoesNotTellStays)
{
    CentreAt({1023, 768, 1});
    m_calibration.SetCalibrationCamToDMD(CamToDMD());
    const Matrix mapping = MappingC2D(m_calibration);
    m_owner.formatStatus = -1;
    m_owner.frame = {0, 0, 10, 10};
    EXPECT_EQ(-9, m_calibration.UpdateTranslationVector());
    EXPECT_THAT(Translation(m_calibration), ElementsAre(1023.0, 768.0, 1.0));
    EXPECT_EQ(mapping, MappingC2D(m_calibration));
}

TEST_F(Mapping, WithoutAnOwnerThereIsNoFlipAndNoTranslation)
{
    m_orphan.SetCalibrationCamToDMD(CamToDMD());
    EXPECT_EQ(-9, m_orphan.UpdateFlipMatrix());
    EXPECT_EQ(-9, m_orphan.UpdateTranslationVector());
    EXPECT_EQ(Identity(), Flip(m_orphan));
    EXPECT_THAT(Translation(m_orphan), ElementsAre(0, 0, 0));
    EXPECT_EQ(0, m_orphan.SetCameraRotationCurrent(180.0));
    EXPECT_NEAR(-1.0, Rotation(m_orphan)[0], 1e-12);
}

// ------------------------------------------------------------------------------------------------------ the mappings

TEST_F(Mapping, OfACameraThatIsNeitherTurnedNorFlippedIsTheCalibration)
{
    m_owner.frame = {0, 0, 2047, 1535};
    m_calibration.UpdateTranslationVector();
    m_calibration.SetCalibrationCamToDMD(CamToDMD());
    EXPECT_THAT(MappingC2D(m_calibration), AreNear(CamToDMD(), 1e-12, 3));
}

TEST_F(Mapping, FollowsFromCameraToDMDAlone)
{
    m_calibration.SetCalibrationCamToDMD(CamToDMD());
    const Matrix forth = MappingC2D(m_calibration);
    const Matrix back = MappingD2C(m_calibration);
    EXPECT_EQ(0, m_calibration.SetCalibrationDMDToCam({2, 0, 0, 0, 2, 0, 0, 0, 1}));
    EXPECT_EQ(forth, MappingC2D(m_calibration));
    EXPECT_EQ(back, MappingD2C(m_calibration));
    EXPECT_THAT(CalibrationD2C(m_calibration), ElementsAre(2, 0, 0, 0, 2, 0, 0, 0, 1));
    EXPECT_EQ(CamToDMD(), CalibrationC2D(m_calibration));
}

// Turned by half a turn about the centre (1024, 768): (x, y) is where (2048 - x, 1536 - y) was.
TEST_F(Mapping, HalfATurnSwapsTheCorners)
{
    CentreAt({1024, 768, 1});
    TurnTo(180.0);
    m_calibration.SetCalibrationCamToDMD(Identity());
    EXPECT_THAT(MappingC2D(m_calibration), AreNear({-1, 0, 2048, 0, -1, 1536, 0, 0, 1}, 1e-10, 3));
}

// Flipped top to bottom about y = 768.
TEST_F(Mapping, AFlipKeepsTheColumns)
{
    CentreAt({1024, 768, 1});
    FlipBy(-1.0);
    m_calibration.UpdateFlipMatrix();
    m_calibration.SetCalibrationCamToDMD(Identity());
    EXPECT_THAT(MappingC2D(m_calibration), AreNear({1, 0, 0, 0, -1, 1536, 0, 0, 1}, 1e-10, 3));
}

// Independent evaluation with 31 digits: calibration times (move to the centre, flip, turn, move back), and the law
// that the two mappings cancel.
TEST_F(Mapping, IsTheProductOfItsPartsAndTheInverseOfTheOther)
{
    std::mt19937_64 random(5);
    const auto uniform = [&random](double from, double to)
    { return std::uniform_real_distribution<double>(from, to)(random); };
    using T = CTracked;
    for (int i = 0; i < 200000; ++i)
    {
        m_owner.frame = {0, 0, static_cast<int>(random() % 5000), static_cast<int>(random() % 5000)};
        m_owner.flip[3] = (random() & 1) != 0 ? 1.0 : -1.0;
        m_calibration.SetCameraRotationCurrent(i % 4 == 0 ? static_cast<double>(random() % 4) * 90.0 : uniform(0, 360));
        ASSERT_EQ(0, m_calibration.UpdateFlipMatrix());
        ASSERT_EQ(0, m_calibration.UpdateTranslationVector());
        const double scale = std::exp(uniform(-2, 2));
        const Matrix k = {scale * uniform(0.5, 1.5),
                          scale * uniform(-0.2, 0.2),
                          uniform(-2000, 2000),
                          scale * uniform(-0.2, 0.2),
                          -scale * uniform(0.5, 1.5),
                          uniform(-2000, 2000),
                          0,
                          0,
                          1};
        ASSERT_EQ(0, m_calibration.SetCalibrationCamToDMD(k));
        const Matrix r = Rotation(m_calibration);
        const Matrix f = Flip(m_calibration);
        const Matrix t = Translation(m_calibration);
        const Matrix forth = MappingC2D(m_calibration);
        const Matrix back = MappingD2C(m_calibration);

        // Where the centre comes to lie by the turn alone: its absolute values are what is taken off before.
        const T x = Abs(T(r[0]) * T(t[0]) + T(r[1]) * T(t[1]));
        const T y = Abs(T(r[3]) * T(t[0]) + T(r[4]) * T(t[1]));
        // camera <- image, the affine part: turn * flip, and the centre back to where it was.
        const T a[4] = {T(r[0]) * T(f[0]), T(r[1]) * T(f[4]), T(r[3]) * T(f[0]), T(r[4]) * T(f[4])};
        const T moved[2] = {T(t[0]) - (a[0] * x + a[1] * y), T(t[1]) - (a[2] * x + a[3] * y)};
        for (std::size_t row = 0; row < 2; ++row)
        {
            const T k0 = k[3 * row], k1 = k[3 * row + 1], k2 = k[3 * row + 2];
            const T expected[3] = {k0 * a[0] + k1 * a[2], k0 * a[1] + k1 * a[3], k0 * moved[0] + k1 * moved[1] + k2};
            for (std::size_t column = 0; column < 3; ++column)
                ASSERT_TRUE(expected[column].Agrees(forth[3 * row + column], 1e-14))
                    << i << ": row " << row << ", column " << column << ": " << forth[3 * row + column]
                    << " instead of " << expected[column].ToDouble();
        }
        ASSERT_THAT(Matrix(forth.begin() + 6, forth.end()), ElementsAre(0, 0, 1));

        for (std::size_t row = 0; row < 3; ++row)
            for (std::size_t column = 0; column < 3; ++column)
            {
                T sum(0.0);
                for (std::size_t n = 0; n < 3; ++n)
                    sum = sum + T(back[3 * row + n]) * T(forth[3 * n + column]);
                // Off by rounding on the scale of what was added up.
                ASSERT_LE(std::abs(sum.ToDouble() - (row == column ? 1.0 : 0.0)), 1e-13 * std::fmax(1.0, sum.Scale()))
                    << i << ": row " << row << ", column " << column;
            }
    }
}

TEST_F(Mapping, ASingularCalibrationIsReportedAndKeepsTheLastInverse)
{
    m_calibration.SetCalibrationCamToDMD(CamToDMD());
    const Matrix back = MappingD2C(m_calibration);
    const CLogCapture log;
    EXPECT_EQ(0, m_calibration.SetCalibrationCamToDMD({1, 2, 3, 2, 4, 6, 0, 0, 1}));
    EXPECT_THAT(log.Of(s_unit),
                testing::Contains(L"CQsStimulationDeviceCalibration::UpdateMapping: Very bad calibration.").Times(1));
    EXPECT_THAT(MappingC2D(m_calibration), ElementsAre(1, 2, 3, 2, 4, 6, 0, 0, 1));
    EXPECT_EQ(back, MappingD2C(m_calibration));
    EXPECT_EQ(0, m_calibration.SetCalibrationCamToDMD(Matrix(9, 0.0)));
    EXPECT_EQ(back, MappingD2C(m_calibration));
    EXPECT_EQ(0, m_calibration.SetCalibrationCamToDMD(Matrix(9, s_nan)));
    EXPECT_EQ(back, MappingD2C(m_calibration));
    EXPECT_EQ(0, m_calibration.SetCalibrationCamToDMD({1, 0, s_inf, 0, 1, 0, 0, 0, 1}));
    EXPECT_EQ(back, MappingD2C(m_calibration));
    // And recovers.
    EXPECT_EQ(0, m_calibration.SetCalibrationCamToDMD({2, 0, 0, 0, 2, 0, 0, 0, 1}));
    EXPECT_THAT(MappingD2C(m_calibration), ElementsAre(0.5, 0, 0, 0, 0.5, 0, 0, 0, 1));
}

TEST_F(Mapping, AMatrixOfAnotherLengthIsKeptAndMapsNothing)
{
    m_calibration.SetCalibrationCamToDMD(CamToDMD());
    const Matrix forth = MappingC2D(m_calibration);
    const Matrix back = MappingD2C(m_calibration);
    const CLogCapture log;
    for (const std::size_t length : {0u, 1u, 4u, 8u, 10u, 1000u})
    {
        const Matrix odd(length, 3.0);
        EXPECT_EQ(0, m_calibration.SetCalibrationCamToDMD(odd));
        EXPECT_EQ(odd, CalibrationC2D(m_calibration));
        EXPECT_EQ(0, m_calibration.SetCalibrationDMDToCam(odd));
        EXPECT_EQ(odd, CalibrationD2C(m_calibration));
        EXPECT_EQ(0, m_calibration.UpdateMapping());
        EXPECT_EQ(forth, MappingC2D(m_calibration)) << length;
        EXPECT_EQ(back, MappingD2C(m_calibration)) << length;
    }
    EXPECT_THAT(log.Of(s_unit), testing::IsEmpty());
    // The corrections are kept meanwhile and count again with the next calibration.
    m_calibration.SetCameraRotationCurrent(90.0);
    EXPECT_EQ(forth, MappingC2D(m_calibration));
    m_calibration.SetCalibrationCamToDMD(Identity());
    EXPECT_THAT(MappingC2D(m_calibration), AreNear({0, -1, 0, 1, 0, 0, 0, 0, 1}, 1e-14, 3));
}

TEST_F(Mapping, TheOtherDirectionOfAnotherLengthDoesNotKeepTheMapping)
{
    m_calibration.SetCalibrationDMDToCam({1, 2, 3, 4});
    m_calibration.SetCalibrationCamToDMD(CamToDMD());
    EXPECT_EQ(CamToDMD(), MappingC2D(m_calibration));
}

TEST_F(Mapping, MatricesComeBackBitForBit)
{
    const Matrix odd = {-0.0, 5e-324, s_inf, -s_inf, s_nan, 1e308, 0.1, 1.0 / 3.0, -1e-300};
    m_calibration.SetCalibrationCamToDMD(odd);
    m_calibration.SetCalibrationDMDToCam(odd);
    for (const Matrix& got : {CalibrationC2D(m_calibration), CalibrationD2C(m_calibration)})
    {
        ASSERT_EQ(odd.size(), got.size());
        EXPECT_EQ(0, std::memcmp(odd.data(), got.data(), odd.size() * sizeof(double)));
    }
}

} // namespace
