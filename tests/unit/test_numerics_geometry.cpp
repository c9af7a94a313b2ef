// 4x4 affine matrices and voxel/space conversions.
#include <gtest/gtest.h>

#include "kep.h"
#include "numerics.h"
#include "test_numerics_support.h"

namespace {

data_stack stack_of(int nx, int ny, int nz, float rx, float ry, float rz) {
  data_stack s;
  s.dim = {nx, ny, nz};
  s.resolution = {rx, ry, rz};
  s.ijk_to_xyz = centered_ijk_to_xyz(s.resolution, s.dim);
  s.xyz_to_ijk = centered_xyz_to_ijk(s.resolution, s.dim);
  return s;
}

TEST(Geometry, ScaleAndShiftLayout) {
  const mat44 m = scale_and_shift_to_mat44(2, 3, 4, -5, -6, -7, 0.5f, 2, -1);
  const float expected[4][4] = {{1, 0, 0, -5}, {0, 6, 0, -6}, {0, 0, -4, -7}, {0, 0, 0, 1}};
  for (int r = 0; r < 4; r++)
    for (int c = 0; c < 4; c++) EXPECT_EQ(m.m[r][c], expected[r][c]) << r << "," << c;
}

TEST(Geometry, GeneralAffineRowsAndLastRow) {
  const float r0[4] = {1, 2, 3, 4}, r1[4] = {5, 6, 7, 8}, r2[4] = {9, 10, 11, 12};
  const mat44 m = general_affine_to_mat44(r0, r1, r2);
  for (int c = 0; c < 4; c++) {
    EXPECT_EQ(m.m[0][c], r0[c]);
    EXPECT_EQ(m.m[1][c], r1[c]);
    EXPECT_EQ(m.m[2][c], r2[c]);
    EXPECT_EQ(m.m[3][c], c == 3 ? 1.0f : 0.0f);
  }
}

TEST(Geometry, CentredVoxelsOfA64By64By20Stack) {
  const data_stack s = stack_of(64, 64, 20, 2, 2, 2);
  POINT3D p;
  Convert_Voxel_to_Space(&p, 0, 0, 0, s.ijk_to_xyz);
  EXPECT_EQ(p.x, -63.0f);
  EXPECT_EQ(p.y, -63.0f);
  EXPECT_EQ(p.z, -19.0f);
  Convert_rVoxel_to_Space(&p, 31.5f, 31.5f, 9.5f, s.ijk_to_xyz);
  EXPECT_EQ(p.x, 0.0f);
  EXPECT_EQ(p.y, 0.0f);
  EXPECT_EQ(p.z, 0.0f);
  Convert_Space_to_rVoxel(&p, 0, 0, 0, s.xyz_to_ijk);
  EXPECT_FLOAT_EQ(p.x, 31.5f);
  EXPECT_FLOAT_EQ(p.y, 31.5f);
  EXPECT_FLOAT_EQ(p.z, 9.5f);
  Convert_Space_to_rVoxel(&p, -63, 63, 19, s.xyz_to_ijk);
  EXPECT_NEAR(p.x, 0.0f, 1e-5);
  EXPECT_FLOAT_EQ(p.y, 63.0f);
  EXPECT_FLOAT_EQ(p.z, 19.0f);
}

TEST(Geometry, OddCentreIsOriginAndDirectionIgnored) {
  data_stack s = stack_of(5, 7, 3, 1.5f, 0.5f, 4);
  POINT3D p;
  Convert_Voxel_to_Space(&p, 2, 3, 1, s.ijk_to_xyz);
  EXPECT_EQ(p.x, 0.0f);
  EXPECT_EQ(p.y, 0.0f);
  EXPECT_EQ(p.z, 0.0f);
  Convert_Voxel_to_Space(&p, 4, 0, 2, s.ijk_to_xyz);
  EXPECT_EQ(p.x, 3.0f);
  EXPECT_EQ(p.y, -1.5f);
  EXPECT_EQ(p.z, 4.0f);
  s.direction = {-1, -1, -1};
  const mat44 flipped = centered_ijk_to_xyz(s.resolution, s.dim);
  for (int r = 0; r < 4; r++)
    for (int c = 0; c < 4; c++) EXPECT_EQ(flipped.m[r][c], s.ijk_to_xyz.m[r][c]);
}

TEST(Geometry, GeneralAffineRoundTrip) {
  // A rotation about z, scaling and a shift: voxel -> space -> voxel.
  const float r0[4] = {0.0f, -2.0f, 0.0f, 10.0f}, r1[4] = {1.5f, 0.0f, 0.0f, -4.0f},
              r2[4] = {0.0f, 0.0f, 3.0f, 7.0f};
  data_stack s;
  s.ijk_to_xyz = general_affine_to_mat44(r0, r1, r2);
  s.xyz_to_ijk = invert_mat44(s.ijk_to_xyz);
  POINT3D p, q;
  Convert_Voxel_to_Space(&p, 3, 5, 2, s.ijk_to_xyz);
  EXPECT_EQ(p.x, 0.0f);
  EXPECT_EQ(p.y, 0.5f);
  EXPECT_EQ(p.z, 13.0f);
  Convert_Space_to_rVoxel(&q, p.x, p.y, p.z, s.xyz_to_ijk);
  EXPECT_NEAR(q.x, 3.0f, 1e-5);
  EXPECT_NEAR(q.y, 5.0f, 1e-5);
  EXPECT_NEAR(q.z, 2.0f, 1e-5);
}

class GeometryDeathTest : public ::testing::Test {};

TEST_F(GeometryDeathTest, SingularMat44EndsTheProgram) {
  mat44 m = scale_and_shift_to_mat44(1, 1, 1, 0, 0, 0, 1, 1, 1);
  m.m[3][3] = 0.0f;
  EXPECT_FATAL_STDOUT(invert_mat44(m), "failed on row 3\n");
  const mat44 zero{};
  EXPECT_FATAL_STDOUT(invert_mat44(zero), "failed on row 0\n");
}

}  // namespace
