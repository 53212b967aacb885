// The system's sine and cosine in the place of MinGW's, which leave the reduction of the angle to the processor: its pi
// has 66 bits, so that near multiples of a right angle half of the digits are wrong. A camera that is turned by a right
// angle is the usual case, and the mappings of saved calibrations must be computed to the last digit as they were.
//
// Linked into the module, which finds these before those of the library.
extern "C" {

extern double (*__imp_sin)(double);
extern double (*__imp_cos)(double);

double sin(double x);
double cos(double x);
void sincos(double x, double* sine, double* cosine); // what the compiler makes of both for one angle

double sin(double x)
{
    return __imp_sin(x);
}

double cos(double x)
{
    return __imp_cos(x);
}

void sincos(double x, double* sine, double* cosine)
{
    *sine = __imp_sin(x);
    *cosine = __imp_cos(x);
}

} // extern "C"
