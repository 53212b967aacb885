#pragma once

enum CBLAS_LAYOUT
{
    CblasRowMajor = 101
};
enum CBLAS_TRANSPOSE
{
    CblasNoTrans = 111,
    CblasTrans = 112
};

extern "C" {
void cblas_dgemm(CBLAS_LAYOUT layout, CBLAS_TRANSPOSE transA, CBLAS_TRANSPOSE transB, int m, int n, int k, double alpha,
                 const double* a, int lda, const double* b, int ldb, double beta, double* c, int ldc);
void cblas_dgemv(CBLAS_LAYOUT layout, CBLAS_TRANSPOSE trans, int m, int n, double alpha, const double* a, int lda,
                 const double* x, int incX, double beta, double* y, int incY);
}
