// Motion correction: rigid-body and slice-by-slice ("deck-of-cards")
// realignment by Gauss-Newton least squares on a smoothed pyramid, then one
// cubic B-spline resampling of each volume.
#include "kep-register.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "kep-decode.h"
#include "kep-interp.h"
#include "kep-stacks.h"
#include "kep-variables.h"
#include "kep.h"

namespace {

using Vec3 = std::array<double, 3>;
using Mat3 = std::array<Vec3, 3>;

constexpr double kDegrees = 180.0 / 3.14159265358979323846;
constexpr Mat3 kIdentity = {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}};

Mat3 multiply(const Mat3 &a, const Mat3 &b) {
  Mat3 r{};
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) r[i][j] = a[i][0] * b[0][j] + a[i][1] * b[1][j] + a[i][2] * b[2][j];
  return r;
}

Vec3 times(const Mat3 &a, const Vec3 &v) {
  return {a[0][0] * v[0] + a[0][1] * v[1] + a[0][2] * v[2], a[1][0] * v[0] + a[1][1] * v[1] + a[1][2] * v[2],
          a[2][0] * v[0] + a[2][1] * v[1] + a[2][2] * v[2]};
}

Mat3 transpose(const Mat3 &a) {
  Mat3 r{};
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) r[i][j] = a[j][i];
  return r;
}

bool invert(const Mat3 &a, Mat3 *out) {
  const double det = a[0][0] * (a[1][1] * a[2][2] - a[1][2] * a[2][1]) -
                     a[0][1] * (a[1][0] * a[2][2] - a[1][2] * a[2][0]) +
                     a[0][2] * (a[1][0] * a[2][1] - a[1][1] * a[2][0]);
  if (!std::isfinite(det) || std::fabs(det) < 1e-12) return false;
  Mat3 &r = *out;
  r[0][0] = (a[1][1] * a[2][2] - a[1][2] * a[2][1]) / det;
  r[0][1] = (a[0][2] * a[2][1] - a[0][1] * a[2][2]) / det;
  r[0][2] = (a[0][1] * a[1][2] - a[0][2] * a[1][1]) / det;
  r[1][0] = (a[1][2] * a[2][0] - a[1][0] * a[2][2]) / det;
  r[1][1] = (a[0][0] * a[2][2] - a[0][2] * a[2][0]) / det;
  r[1][2] = (a[0][2] * a[1][0] - a[0][0] * a[1][2]) / det;
  r[2][0] = (a[1][0] * a[2][1] - a[1][1] * a[2][0]) / det;
  r[2][1] = (a[0][1] * a[2][0] - a[0][0] * a[2][1]) / det;
  r[2][2] = (a[0][0] * a[1][1] - a[0][1] * a[1][0]) / det;
  return true;
}

// The rotation by |w| radians about the axis w.
Mat3 rotation_from_vector(const Vec3 &w) {
  const double angle = std::sqrt(w[0] * w[0] + w[1] * w[1] + w[2] * w[2]);
  if (angle < 1e-300) return kIdentity;
  const double x = w[0] / angle, y = w[1] / angle, z = w[2] / angle;
  const double c = std::cos(angle), s = std::sin(angle), C = 1.0 - c;
  return {{{c + x * x * C, x * y * C - z * s, x * z * C + y * s},
           {y * x * C + z * s, c + y * y * C, y * z * C - x * s},
           {z * x * C - y * s, z * y * C + x * s, c + z * z * C}}};
}

// The rotation's angles about x, y and z (radians) for R = Rz Ry Rx.
Vec3 angles_of(const Mat3 &r) {
  const double sy = std::fmax(-1.0, std::fmin(1.0, -r[2][0]));
  return {std::atan2(r[2][1], r[2][2]), std::asin(sy), std::atan2(r[1][0], r[0][0])};
}

// A point at p (mm from the volume's centre) in the reference sits at
// rotation p + translation in the moving volume.
struct Rigid {
  Mat3 rotation = kIdentity;
  Vec3 translation{0, 0, 0};
};

// World offsets from the volume's centre: p = A (ijk - centre).
struct Frame {
  Mat3 A{}, Ainv{};
  Vec3 centre{0, 0, 0};
  int n[3] = {1, 1, 1};
};

// The moving volume's voxel position of reference voxel x: m x + offset.
struct VoxelMap {
  Mat3 m;
  Vec3 offset;
  Vec3 operator()(double i, double j, double k) const {
    return {m[0][0] * i + m[0][1] * j + m[0][2] * k + offset[0],
            m[1][0] * i + m[1][1] * j + m[1][2] * k + offset[1],
            m[2][0] * i + m[2][1] * j + m[2][2] * k + offset[2]};
  }
};

VoxelMap voxel_map(const Frame &f, const Rigid &t) {
  VoxelMap v;
  v.m = multiply(f.Ainv, multiply(t.rotation, f.A));
  const Vec3 shift = times(f.Ainv, t.translation), mc = times(v.m, f.centre);
  for (int a = 0; a < 3; a++) v.offset[a] = f.centre[a] + shift[a] - mc[a];
  return v;
}

// Inside the sampled grid, with half a voxel of room on a single-sample axis.
bool inside_grid(const Vec3 &y, const int n[3]) {
  for (int a = 0; a < 3; a++) {
    if (n[a] == 1) {
      if (!(std::fabs(y[a]) <= 0.5)) return false;
    } else if (!(y[a] >= 0.0 && y[a] <= n[a] - 1)) {
      return false;
    }
  }
  return true;
}

// One level of the pyramid: the reference's sample points with their values
// and the derivatives of the reference with respect to the six parameters.
struct Level {
  double sigma[3] = {0, 0, 0};
  std::vector<float> position;   // voxel i, j, k per point
  std::vector<float> value;      // smoothed reference value
  std::vector<double> jacobian;  // six per point: translations, then rotations (radians)
};

using Pyramid = std::vector<Level>;

Pyramid build_pyramid(const RealVolume &reference, const Frame &f, const double resolution[3]) {
  const double finest = std::fmin(resolution[0], std::fmin(resolution[1], resolution[2]));
  const int n[3] = {reference.nx, reference.ny, reference.nz};
  Pyramid pyramid;
  for (int factor : {4, 2, 1}) {
    Level level;
    long step[3];
    for (int a = 0; a < 3; a++) {
      // Coarse levels sample every few voxels and smooth to match, in mm.
      const double s = factor * finest / resolution[a];
      step[a] = std::max(1L, std::min(static_cast<long>(std::lround(s)), static_cast<long>(n[a] / 8)));
      level.sigma[a] = factor > 1 ? 0.5 * s : 0.0;
    }
    RealVolume smooth = reference;
    gaussian_smooth(smooth, level.sigma);
    const Mat3 At = transpose(f.Ainv);
    for (long k = 0; k < n[2]; k += step[2])
      for (long j = 0; j < n[1]; j += step[1])
        for (long i = 0; i < n[0]; i += step[0]) {
          const long idx[3] = {i, j, k};
          Vec3 g{0, 0, 0};
          for (int a = 0; a < 3; a++) {
            if (n[a] < 2) continue;
            long lo[3] = {i, j, k}, hi[3] = {i, j, k};
            lo[a] = std::max(0L, idx[a] - 1);
            hi[a] = std::min(static_cast<long>(n[a] - 1), idx[a] + 1);
            g[a] = (smooth.at(hi[0], hi[1], hi[2]) - smooth.at(lo[0], lo[1], lo[2])) /
                   static_cast<double>(hi[a] - lo[a]);
          }
          if (g[0] == 0.0 && g[1] == 0.0 && g[2] == 0.0) continue;  // adds nothing to the fit
          const Vec3 gw = times(At, g);
          const Vec3 p = times(f.A, {i - f.centre[0], j - f.centre[1], k - f.centre[2]});
          level.position.insert(level.position.end(),
                                {static_cast<float>(i), static_cast<float>(j), static_cast<float>(k)});
          level.value.push_back(smooth.at(i, j, k));
          level.jacobian.insert(level.jacobian.end(),
                                {gw[0], gw[1], gw[2], p[1] * gw[2] - p[2] * gw[1],
                                 p[2] * gw[0] - p[0] * gw[2], p[0] * gw[1] - p[1] * gw[0]});
        }
    pyramid.push_back(std::move(level));
  }
  return pyramid;
}

// Solves H d = b over the active parameters (Cholesky with a small ridge);
// false when the system is not positive definite.
bool solve(double H[6][6], const double b[6], const bool active[6], double d[6]) {
  int index[6], m = 0;
  for (int a = 0; a < 6; a++) {
    d[a] = 0.0;
    if (active[a]) index[m++] = a;
  }
  double L[6][6] = {}, y[6];
  double largest = 0.0;
  for (int r = 0; r < m; r++) largest = std::fmax(largest, H[index[r]][index[r]]);
  if (!(largest > 0.0)) return true;  // nothing to fit: no move
  for (int r = 0; r < m; r++)
    for (int c = 0; c <= r; c++) {
      double s = H[index[r]][index[c]] + (r == c ? 1e-10 * largest : 0.0);
      for (int k = 0; k < c; k++) s -= L[r][k] * L[c][k];
      if (r == c) {
        if (!(s > 0.0)) return false;
        L[r][r] = std::sqrt(s);
      } else {
        L[r][c] = s / L[c][c];
      }
    }
  for (int r = 0; r < m; r++) {
    double s = b[index[r]];
    for (int k = 0; k < r; k++) s -= L[r][k] * y[k];
    y[r] = s / L[r][r];
  }
  for (int r = m - 1; r >= 0; r--) {
    double s = y[r];
    for (int k = r + 1; k < m; k++) s -= L[k][r] * d[index[k]];
    d[index[r]] = s / L[r][r];
  }
  return true;
}

// Inverse-compositional Gauss-Newton: the reference's derivatives (and so
// most of the work) are computed once per level for every volume.
bool estimate(const Pyramid &pyramid, const RealVolume &moving, const Frame &f, const bool active[6],
              Rigid *t) {
  const bool mirror[3] = {false, false, false};
  for (const Level &level : pyramid) {
    RealVolume m = moving;
    gaussian_smooth(m, level.sigma);
    bspline_prefilter(m);
    const size_t npoints = level.value.size();
    for (int iteration = 0; iteration < 50; iteration++) {
      const VoxelMap map = voxel_map(f, *t);
      double H[6][6] = {}, b[6] = {};
      long used = 0;
      for (size_t p = 0; p < npoints; p++) {
        const float *x = &level.position[3 * p];
        const Vec3 y = map(x[0], x[1], x[2]);
        if (!inside_grid(y, f.n)) continue;
        const double e = bspline_value(m, y[0], y[1], y[2], mirror) - level.value[p];
        const double *J = &level.jacobian[6 * p];
        for (int r = 0; r < 6; r++) {
          b[r] += J[r] * e;
          for (int c = 0; c <= r; c++) H[r][c] += J[r] * J[c];
        }
        used++;
      }
      if (used < 6) break;  // nothing left to compare (a blank slice): no move
      for (int r = 0; r < 6; r++)
        for (int c = r + 1; c < 6; c++) H[r][c] = H[c][r];
      double d[6];
      if (!solve(H, b, active, d)) return false;
      for (double v : d)
        if (!std::isfinite(v)) return false;
      // Undo the reference's small move: T <- T o W(d)^-1.
      const Mat3 back = multiply(t->rotation, transpose(rotation_from_vector({d[3], d[4], d[5]})));
      const Vec3 moved = times(back, {d[0], d[1], d[2]});
      t->rotation = back;
      for (int a = 0; a < 3; a++) t->translation[a] -= moved[a];
      const double shift = std::fmax(std::fabs(d[0]), std::fmax(std::fabs(d[1]), std::fabs(d[2])));
      const double turn = std::fmax(std::fabs(d[3]), std::fmax(std::fabs(d[4]), std::fabs(d[5])));
      if (shift < 1e-5 && turn < 1e-7) break;
    }
  }
  return true;
}

bool is_polar(const data_stack *s) { return (s->status & (STATUS_POLAR | STATUS_MAP)) == STATUS_POLAR; }
bool is_map(const data_stack *s) { return (s->status & STATUS_MAP) != 0; }

// The amplitudes of one listed volume (non-finite values count as 0).
RealVolume amplitudes(const volume_list *v) {
  RealVolume r;
  r.nx = v->dim.x;
  r.ny = v->dim.y;
  r.nz = v->dim.z;
  r.v.resize(static_cast<size_t>(r.size()));
  for (long n = 0; n < r.size(); n++) {
    const float a = volume_amp(v, n);
    r.v[static_cast<size_t>(n)] = std::isfinite(a) ? a : 0.0f;
  }
  return r;
}

RealVolume slice_of(const RealVolume &vol, long k) {
  RealVolume s;
  s.nx = vol.nx;
  s.ny = vol.ny;
  s.nz = 1;
  const long n2d = static_cast<long>(vol.nx) * vol.ny;
  s.v.assign(vol.v.begin() + k * n2d, vol.v.begin() + (k + 1) * n2d);
  return s;
}

// World axes from the voxel-to-world matrix when it is usable, else the voxel
// axes scaled by the voxel sizes.
bool frame_of(const data_stack *s, Frame *f) {
  const POINT3D &r = s->resolution;
  for (int a = 0; a < 3; a++)
    for (int c = 0; c < 3; c++) f->A[a][c] = s->ijk_to_xyz.m[a][c];
  if (!invert(f->A, &f->Ainv)) {
    f->A = {{{r.x * s->direction.x, 0, 0}, {0, r.y * s->direction.y, 0}, {0, 0, r.z * s->direction.z}}};
    if (!invert(f->A, &f->Ainv)) return false;
  }
  for (int a = 0; a < 3; a++)
    for (int c = 0; c < 3; c++)
      if (!std::isfinite(f->A[a][c]) || !std::isfinite(f->Ainv[a][c])) return false;
  f->n[0] = s->dim.x;
  f->n[1] = s->dim.y;
  f->n[2] = s->dim.z;
  f->centre = {(s->dim.x - 1) / 2.0, (s->dim.y - 1) / 2.0, (s->dim.z - 1) / 2.0};
  return true;
}

// The in-plane frame of one slice: voxel axes scaled by the voxel sizes.
Frame slice_frame(const data_stack *s) {
  Frame f;
  f.A = {{{std::fabs(s->resolution.x), 0, 0}, {0, std::fabs(s->resolution.y), 0}, {0, 0, 1}}};
  invert(f.A, &f.Ainv);
  f.n[0] = s->dim.x;
  f.n[1] = s->dim.y;
  f.n[2] = 1;
  f.centre = {(s->dim.x - 1) / 2.0, (s->dim.y - 1) / 2.0, 0.0};
  return f;
}

// Resamples `channel` (prefiltered) through `map` into `out`, stride 2 floats
// apart; positions beyond an edge that does not wrap give 0.
void resample_channel(const RealVolume &c, const VoxelMap &map, const bool wrap[3], float *out, long k0,
                      long nk) {
  const int n[3] = {c.nx, c.ny, c.nz};
  long o = 0;
  for (long k = k0; k < k0 + nk; k++)
    for (long j = 0; j < c.ny; j++)
      for (long i = 0; i < c.nx; i++, o++) {
        const Vec3 y = map(static_cast<double>(i), static_cast<double>(j), static_cast<double>(k));
        bool in = true;
        for (int a = 0; a < 3; a++)
          if (!wrap[a] && !(y[a] >= -0.5 && y[a] <= n[a] - 0.5)) in = false;
        out[2 * o] = in ? static_cast<float>(bspline_value(c, y[0], y[1], y[2], wrap)) : 0.0f;
      }
}

// Resamples one volume (or, with nk 1, the slice k0 through a slice map) in
// place: complex samples as complex; polar ones by their (signed) magnitude,
// with the phase taken from the resampled phasor where there is one; maps by
// their values.
void resample(volume_list *v, const VoxelMap &map, const bool wrap[3], long k0, long nk) {
  const data_stack *s = v->stack;
  FCOMPLEX *data = v->SpaceTime.fcData + k0 * v->n2d;
  const long count = nk * v->n2d;
  const bool polar = is_polar(s), map_only = is_map(s);
  bool phase = false;
  if (polar)
    for (long n = 0; n < count && !phase; n++) phase = data[n].imag != 0.0f;
  auto channel = [&](auto value) {
    RealVolume c;
    c.nx = v->dim.x;
    c.ny = v->dim.y;
    c.nz = static_cast<int>(nk);
    c.v.resize(static_cast<size_t>(count));
    for (long n = 0; n < count; n++) {
      const float x = value(data[n]);
      c.v[static_cast<size_t>(n)] = std::isfinite(x) ? x : 0.0f;
    }
    bspline_prefilter(c);
    std::vector<float> out(static_cast<size_t>(2 * count));
    resample_channel(c, map, wrap, out.data(), nk == 1 ? 0 : k0, nk);
    return out;
  };
  const std::vector<float> a = channel([](FCOMPLEX z) { return z.real; });
  std::vector<float> b, c;
  if (polar && phase) {
    b = channel(
        [](FCOMPLEX z) { return static_cast<float>(std::fabs(z.real) * std::cos(z.imag / kDegrees)); });
    c = channel(
        [](FCOMPLEX z) { return static_cast<float>(std::fabs(z.real) * std::sin(z.imag / kDegrees)); });
  } else if (!polar && !map_only) {
    b = channel([](FCOMPLEX z) { return z.imag; });
  }
  for (long n = 0; n < count; n++) {
    const size_t o = static_cast<size_t>(2 * n);
    float imag = 0.0f;
    if (polar && phase)
      imag = static_cast<float>(std::atan2(static_cast<double>(c[o]), static_cast<double>(b[o])) * kDegrees);
    else if (!polar && !map_only)
      imag = b[o];
    data[n] = {a[o], imag};
  }
}

// The listed volumes of one stack, each once, the first being the reference.
struct Group {
  data_stack *stack;
  std::vector<volume_list *> nodes;
  std::vector<std::array<double, 6>> motion;  // mm and degrees per volume
  std::vector<Rigid> rigid;                   // per volume
  std::vector<std::vector<Rigid>> slices;     // per volume and slice (deck-of-cards)
};

int volume_number(const volume_list *v) {
  return static_cast<int>((v->SpaceTime.fcData - v->stack->SpaceTime.fcData) / v->stack->n3d);
}

std::vector<Group> groups_of_list() {
  std::vector<Group> groups;
  for (volume_list *v = volume_list_root; v; v = v->next) {
    if (v->stack == nullptr) continue;
    Group *g = nullptr;
    for (Group &h : groups)
      if (h.stack == v->stack) g = &h;
    if (g == nullptr) {
      groups.push_back(Group{v->stack, {}, {}, {}, {}});
      g = &groups.back();
    }
    bool seen = false;
    for (const volume_list *u : g->nodes)
      if (u->SpaceTime.fcData == v->SpaceTime.fcData) seen = true;
    if (!seen) g->nodes.push_back(v);
  }
  return groups;
}

std::array<double, 6> parameters_of(const Rigid &t) {
  const Vec3 a = angles_of(t.rotation);
  return {t.translation[0], t.translation[1], t.translation[2],
          a[0] * kDegrees,  a[1] * kDegrees,  a[2] * kDegrees};
}

bool estimate_rigid(Group &g) {
  Frame f;
  if (!frame_of(g.stack, &f)) {
    kep_textf(2, "register: the voxel-to-world geometry of stack %s cannot be inverted.", g.stack->name);
    return false;
  }
  const double res[3] = {std::sqrt(f.A[0][0] * f.A[0][0] + f.A[1][0] * f.A[1][0] + f.A[2][0] * f.A[2][0]),
                         std::sqrt(f.A[0][1] * f.A[0][1] + f.A[1][1] * f.A[1][1] + f.A[2][1] * f.A[2][1]),
                         std::sqrt(f.A[0][2] * f.A[0][2] + f.A[1][2] * f.A[1][2] + f.A[2][2] * f.A[2][2])};
  // Too few slices cannot show a tilt: such volumes move in their plane only.
  const bool planar = g.stack->dim.z < 4;
  const bool active[6] = {true, true, !planar, !planar, !planar, true};
  const RealVolume reference = amplitudes(g.nodes[0]);
  const Pyramid pyramid = build_pyramid(reference, f, res);
  for (volume_list *v : g.nodes) {
    Rigid t;
    if (v != g.nodes[0] && !estimate(pyramid, amplitudes(v), f, active, &t)) {
      kep_textf(2, "register: the motion of volume %d of stack %s could not be estimated.",
                volume_number(v) + io_increment, g.stack->name);
      return false;
    }
    g.rigid.push_back(t);
    g.motion.push_back(parameters_of(t));
  }
  return true;
}

bool estimate_slices(Group &g) {
  const Frame f = slice_frame(g.stack);
  const double res[3] = {std::fabs(g.stack->resolution.x), std::fabs(g.stack->resolution.y), 1e30};
  const bool active[6] = {true, true, false, false, false, true};
  const RealVolume reference = amplitudes(g.nodes[0]);
  std::vector<Pyramid> pyramids;
  for (long k = 0; k < g.stack->dim.z; k++) pyramids.push_back(build_pyramid(slice_of(reference, k), f, res));
  for (volume_list *v : g.nodes) {
    const RealVolume moving = amplitudes(v);
    std::vector<Rigid> per_slice(static_cast<size_t>(g.stack->dim.z));
    std::array<double, 6> mean{0, 0, 0, 0, 0, 0};
    for (long k = 0; k < g.stack->dim.z; k++) {
      Rigid &t = per_slice[static_cast<size_t>(k)];
      if (v != g.nodes[0] &&
          !estimate(pyramids[static_cast<size_t>(k)], slice_of(moving, k), f, active, &t)) {
        kep_textf(2, "register: the motion of slice %ld of volume %d of stack %s could not be estimated.", k,
                  volume_number(v) + io_increment, g.stack->name);
        return false;
      }
      const std::array<double, 6> p = parameters_of(t);
      for (int a = 0; a < 6; a++) mean[a] += p[a] / g.stack->dim.z;
    }
    g.slices.push_back(std::move(per_slice));
    g.motion.push_back(mean);
  }
  return true;
}

bool write_motion_table(const Group &g) {
  const std::string name = std::string(g.stack->name) + ".motion";
  FILE *file = fopen(name.c_str(), "w");
  if (file == nullptr) {
    kep_textf(2, "register: cannot write the motion table %s.", name.c_str());
    return false;
  }
  fprintf(file, "translation-x translation-y translation-z rotation-x rotation-y rotation-z\n");
  for (const std::array<double, 6> &m : g.motion)
    fprintf(file, "%.6g %.6g %.6g %.6g %.6g %.6g\n", m[0], m[1], m[2], m[3], m[4], m[5]);
  const bool ok = fclose(file) == 0;
  if (!ok) kep_textf(2, "register: cannot write the motion table %s.", name.c_str());
  return ok;
}

}  // namespace

int register_volume() {
  std::vector<Group> groups = groups_of_list();
  if (groups.empty()) {
    kep_text(2, "register: no volumes are listed.");
    return 1;
  }
  const bool rigid = Alignment.RigidBody != 0;
  for (const Group &g : groups) {
    const data_stack *s = g.stack;
    if (s->dim.x < 4 || s->dim.y < 4 || s->dim.z < 1) {
      kep_textf(2, "register: stack %s is too small to register (%d x %d x %d; at least 4 x 4 in a slice).",
                s->name, s->dim.x, s->dim.y, s->dim.z);
      return 1;
    }
    const POINT3D &r = s->resolution;
    if (!(std::isfinite(r.x) && std::isfinite(r.y) && std::isfinite(r.z) && r.x != 0 && r.y != 0 &&
          r.z != 0)) {
      kep_textf(2, "register: stack %s has voxel sizes (%g, %g, %g) that cannot be registered.", s->name, r.x,
                r.y, r.z);
      return 1;
    }
  }
  // Every estimate and every table first: a failure leaves all stacks as they were.
  for (Group &g : groups)
    if (!(rigid ? estimate_rigid(g) : estimate_slices(g))) return 1;
  for (const Group &g : groups)
    if (!write_motion_table(g)) return 1;

  const bool wrap[3] = {Alignment.WrapAround.x != 0, Alignment.WrapAround.y != 0,
                        Alignment.WrapAround.z != 0};
  for (Group &g : groups) {
    for (size_t n = 0; n < g.nodes.size(); n++) {
      volume_list *v = g.nodes[n];
      const std::array<double, 6> &m = g.motion[n];
      if (rigid) {
        if (n > 0) {
          Frame f;
          frame_of(g.stack, &f);
          resample(v, voxel_map(f, g.rigid[n]), wrap, 0, v->dim.z);
        }
        printf("register %s volume %d: translations %.4f %.4f %.4f mm, rotations %.4f %.4f %.4f degrees\n",
               g.stack->name, volume_number(v) + io_increment, m[0], m[1], m[2], m[3], m[4], m[5]);
      } else {
        const Frame f = slice_frame(g.stack);
        double largest = 0.0;
        for (long k = 0; k < v->dim.z; k++) {
          const Rigid &t = g.slices[n][static_cast<size_t>(k)];
          largest = std::fmax(largest, std::hypot(t.translation[0], t.translation[1]));
          if (n > 0) resample(v, voxel_map(f, t), wrap, k, 1);
        }
        printf(
            "register %s volume %d: mean of %d slices: translations %.4f %.4f mm, rotation %.4f degrees; "
            "largest slice shift %.4f mm\n",
            g.stack->name, volume_number(v) + io_increment, v->dim.z, m[0], m[1], m[5], largest);
      }
      for (int a = 0; a < 6; a++) set_alignment_value(a, static_cast<float>(m[a]));
    }
    printf("The motion of %zu volumes of %s was written to %s.motion\n", g.nodes.size(), g.stack->name,
           g.stack->name);
  }
  return 0;
}
