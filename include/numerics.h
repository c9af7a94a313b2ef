// Matrix and vector algebra, voxel geometry, the incomplete beta function
// and the small polynomial and general least-squares fitters.
#pragma once

#include <vector>

#include "types.h"
#include "util.h"

// Matrix and vector algebra. Matrices are row-pointer arrays [row][column].
// Several (Matrix_Vector_Product, Trace_of_Matrix, the FC helpers) have no
// caller in the program today: the library offers them.
int invert_3x3_matrix(float m[3][3]);
int dInvertSquareMatrix(int n, double **a, int *failing_row);
int rInvertSquareMatrix(int n, float **a, int *failing_row);
// The inverse of the symmetric positive definite n x n matrix a (row-major,
// n <= 12) into `inverse` by its Cholesky factor; false, with `inverse`
// untouched, when a pivot is not positive or n is out of that range.
bool dInvertPositiveDefinite(int n, const double *a, double **inverse);
void Matrix_Product(float **C, int n, int m, float **A, int transpose_a, int p, float **B, int transpose_b);
void Matrix_Vector_Product(float *y, int n, float **A, int transpose, int p, const float *x);
void Matrix_PseudoInverse(float **X, int t, int c, float **out);
float Trace_of_Matrix(int n, float **A);
FCOMPLEX FCMult(FCOMPLEX a, FCOMPLEX b);
FCOMPLEX FCMultStar(FCOMPLEX a, FCOMPLEX b);
FCOMPLEX FCAdd(FCOMPLEX a, FCOMPLEX b);
int is_power_of_2(int n, int *lower, int *upper);

// 4x4 affine matrices and voxel/space conversions.
mat44 invert_mat44(mat44 m);
mat44 scale_and_shift_to_mat44(float scale_x, float scale_y, float scale_z, float shift_x, float shift_y,
                               float shift_z, float factor_x, float factor_y, float factor_z);
mat44 general_affine_to_mat44(const float row0[4], const float row1[4], const float row2[4]);
// The voxel-to-space matrix of a volume centred on the space origin: voxel i
// sits at resolution * (i - (dim - 1) / 2); and its inverse.
mat44 centered_ijk_to_xyz(const POINT3D &resolution, const IPOINT3D &dim);
mat44 centered_xyz_to_ijk(const POINT3D &resolution, const IPOINT3D &dim);
// A voxel (whole or fractional) to space through `ijk_to_xyz`, and back.
void Convert_Voxel_to_Space(POINT3D *out, int i, int j, int k, const mat44 &ijk_to_xyz);
void Convert_rVoxel_to_Space(POINT3D *out, float i, float j, float k, const mat44 &ijk_to_xyz);
void Convert_Space_to_rVoxel(POINT3D *out, float x, float y, float z, const mat44 &xyz_to_ijk);

// Regularised incomplete beta function I_x(a, b).
double ibeta(double a, double b, double x);
double incbcf(double a, double b, double x);
double incbd(double a, double b, double x);
double pseries(double a, double b, double x);
// p-value of an F statistic with `dof` residual degrees of freedom and
// `ncontrasts` contrast rows, with the doubling and folding rule for several rows.
double p_value_of_F(double F, double dof, int ncontrasts);

// Polynomial and general linear fits of one time series at a time. Each kind
// keeps one design, replaced by its next define and applied to every series.
struct linear_fit {
  int npts = 0;
  int order = 0;                    // number of coefficients; 0 until defined
  std::vector<int> use;             // npts weights, 1 to use a point, 0 to leave it out
  fmatrix X;                        // design, npts x order
  fmatrix inverse;                  // inverse of the weighted normal matrix, order x order
  fmatrix P;                        // projection, order x npts
  std::vector<float> coefficients;  // of the last fit
};
extern linear_fit PolyGLM;
extern linear_fit GeneralGLM;
// Forgets both designs (start of the program and between tests).
void reset_linear_fits();

int PolynomialDefineGLM(int order, int npts, const int *use);
int PolynomialFitGLM(int npts, const float *data, float *fit);
int PolynomialRemoveGLM(int first, int npts, float *data, float *fit);
// The general fits have no caller today: the library offers them beside the polynomial ones.
int GeneralDefineGLM(int ncoef, int npts, const int *use, float **design);
int GeneralFitGLM(int npts, const float *data, float *fit);
int GeneralRemoveGLM(int first, int npts, float *data, float *fit);

// Least-squares straight line through n points.
void fit_line(int n, const float *x, const float *y, float *slope, float *intercept, float *sigma);
