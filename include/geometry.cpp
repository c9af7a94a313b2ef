// 4x4 affine matrices and voxel/space conversions through them.
#include <cstdio>
#include <cstdlib>

#include "fatal.h"
#include "numerics.h"
#include "util.h"

mat44 invert_mat44(mat44 m) {
  fmatrix a(4, 4);
  for (int r = 0; r < 4; r++)
    for (int c = 0; c < 4; c++) a[r][c] = m.m[r][c];
  int failing_row;
  if (rInvertSquareMatrix(4, a, &failing_row) != 0)
    throw_fatal(fatal::on_stdout, "failed on row %d\n", failing_row);
  mat44 out;
  for (int r = 0; r < 4; r++)
    for (int c = 0; c < 4; c++) out.m[r][c] = a[r][c];
  return out;
}

mat44 scale_and_shift_to_mat44(float scale_x, float scale_y, float scale_z, float shift_x, float shift_y,
                               float shift_z, float factor_x, float factor_y, float factor_z) {
  mat44 out{};
  out.m[0][0] = scale_x * factor_x;
  out.m[1][1] = scale_y * factor_y;
  out.m[2][2] = scale_z * factor_z;
  out.m[3][3] = 1.0f;
  out.m[0][3] = shift_x;
  out.m[1][3] = shift_y;
  out.m[2][3] = shift_z;
  return out;
}

mat44 general_affine_to_mat44(const float row0[4], const float row1[4], const float row2[4]) {
  mat44 out{};
  for (int c = 0; c < 4; c++) {
    out.m[0][c] = row0[c];
    out.m[1][c] = row1[c];
    out.m[2][c] = row2[c];
  }
  out.m[3][3] = 1.0f;
  return out;
}

mat44 centered_ijk_to_xyz(const POINT3D &r, const IPOINT3D &d) {
  // The volume's centre is the space origin: voxel i sits at r (i - (dim - 1) / 2).
  return scale_and_shift_to_mat44(r.x, r.y, r.z, (1.0f - d.x) * r.x / 2.0f, (1.0f - d.y) * r.y / 2.0f,
                                  (1.0f - d.z) * r.z / 2.0f, 1.0f, 1.0f, 1.0f);
}

mat44 centered_xyz_to_ijk(const POINT3D &resolution, const IPOINT3D &dim) {
  return invert_mat44(centered_ijk_to_xyz(resolution, dim));
}

namespace {

void apply(POINT3D *out, const mat44 &m, float i, float j, float k) {
  const float p[4] = {i, j, k, 1.0f};
  float r[3];
  for (int row = 0; row < 3; row++) {
    float s = 0.0f;
    for (int c = 0; c < 4; c++) s += m.m[row][c] * p[c];
    r[row] = s;
  }
  out->x = r[0];
  out->y = r[1];
  out->z = r[2];
}

}  // namespace

void Convert_Voxel_to_Space(POINT3D *out, int i, int j, int k, const mat44 &ijk_to_xyz) {
  Convert_rVoxel_to_Space(out, static_cast<float>(i), static_cast<float>(j), static_cast<float>(k),
                          ijk_to_xyz);
}

void Convert_rVoxel_to_Space(POINT3D *out, float i, float j, float k, const mat44 &ijk_to_xyz) {
  apply(out, ijk_to_xyz, i, j, k);
}

void Convert_Space_to_rVoxel(POINT3D *out, float x, float y, float z, const mat44 &xyz_to_ijk) {
  apply(out, xyz_to_ijk, x, y, z);
}
