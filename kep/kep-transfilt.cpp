// Fourier transforms along x, y, z and t, and the filters that act on the
// complex samples: Gaussian smoothing in k-space, Hamming window,
// exponential weighting along x and the edge filter.
#include "kep-transfilt.h"

#include <fftw3.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "kep-decode.h"
#include "kep-interrupt.h"
#include "kep-stacks.h"
#include "kep.h"
#include "threads.h"

namespace {

// Samples of the double-precision buffer per pass: 256 kB, which stays in
// the second-level cache while its lines are transformed. Every axis uses
// the same layout (whole lines one after the other), so equal lengths share
// one plan shape and later plans come from the process's FFTW wisdom. (Lines
// side by side, planned down the columns, run faster but take FFTW twice as
// long to plan, which a single command does not win back.)
constexpr long BATCH_SAMPLES = 16384;

struct FftwBuffer {
  fftw_complex *data = nullptr;
  explicit FftwBuffer(size_t n) : data(static_cast<fftw_complex *>(fftw_malloc(sizeof(fftw_complex) * n))) {}
  ~FftwBuffer() { fftw_free(data); }
  FftwBuffer(const FftwBuffer &) = delete;
  FftwBuffer &operator=(const FftwBuffer &) = delete;
};

struct FftwPlan {
  fftw_plan plan = nullptr;
  ~FftwPlan() {
    if (plan != nullptr) fftw_destroy_plan(plan);
  }
};

// The lines of one transform: `nblocks` blocks `block_stride` samples apart,
// each holding `ncolumns` lines of `n` samples `stride` apart, the lines of
// a block starting at consecutive samples. x: stride 1 and one column per
// block; y, z and t: the columns of a slice, a volume or the whole stack.
struct LineSet {
  FCOMPLEX *data;
  long nblocks;
  long block_stride;
  long ncolumns;
  long stride;
  int n;
};

// One pass over up to `batch` contiguous lines from block `first` on.
void contiguous_pass(const LineSet &lines, fftw_plan plan, fftw_complex *buf, long batch, long first,
                     float scale) {
  const long n = lines.n, before = n / 2, after = (n + 1) / 2;
  long count = lines.nblocks - first < batch ? lines.nblocks - first : batch;
  for (long b = 0; b < count; b++) {
    const FCOMPLEX *line = lines.data + (first + b) * lines.block_stride;
    fftw_complex *out = buf + b * n;
    for (long j = 0; j < n - before; j++) {
      out[j][0] = line[j + before].real;
      out[j][1] = line[j + before].imag;
    }
    for (long j = n - before; j < n; j++) {
      out[j][0] = line[j - (n - before)].real;
      out[j][1] = line[j - (n - before)].imag;
    }
  }
  if (count < batch) memset(buf + count * n, 0, sizeof(fftw_complex) * (batch - count) * n);
  fftw_execute_dft(plan, buf, buf);
  for (long b = 0; b < count; b++) {
    FCOMPLEX *line = lines.data + (first + b) * lines.block_stride;
    const fftw_complex *in = buf + b * n;
    for (long m = 0; m < n - after; m++) {
      line[m].real = static_cast<float>(in[m + after][0]) / scale;
      line[m].imag = static_cast<float>(in[m + after][1]) / scale;
    }
    for (long m = n - after; m < n; m++) {
      line[m].real = static_cast<float>(in[m - (n - after)][0]) / scale;
      line[m].imag = static_cast<float>(in[m - (n - after)][1]) / scale;
    }
  }
}

// One pass over up to `batch` strided lines of `block`, from column `first` on.
// The copies transpose tiles of 16 samples of 16 lines, so that the stack is
// read and written along its rows and the buffer's lines a few cache lines at
// a time.
void strided_pass(const LineSet &lines, fftw_plan plan, fftw_complex *buf, long batch, long block, long first,
                  float scale) {
  constexpr long TILE = 16;
  const long n = lines.n, before = n / 2, after = (n + 1) / 2;
  FCOMPLEX *base = lines.data + block * lines.block_stride;
  long count = lines.ncolumns - first < batch ? lines.ncolumns - first : batch;
  if (count < batch) memset(buf + count * n, 0, sizeof(fftw_complex) * (batch - count) * n);
  for (long j0 = 0; j0 < n; j0 += TILE)
    for (long b0 = 0; b0 < count; b0 += TILE) {
      const long j1 = std::min(n, j0 + TILE), b1 = std::min(count, b0 + TILE);
      for (long j = j0; j < j1; j++) {
        long row = j + before < n ? j + before : j + before - n;
        const FCOMPLEX *src = base + row * lines.stride + first;
        for (long b = b0; b < b1; b++) {
          buf[b * n + j][0] = src[b].real;
          buf[b * n + j][1] = src[b].imag;
        }
      }
    }
  fftw_execute_dft(plan, buf, buf);
  for (long m0 = 0; m0 < n; m0 += TILE)
    for (long b0 = 0; b0 < count; b0 += TILE) {
      const long m1 = std::min(n, m0 + TILE), b1 = std::min(count, b0 + TILE);
      for (long m = m0; m < m1; m++) {
        long row = m + after < n ? m + after : m + after - n;
        FCOMPLEX *dst = base + m * lines.stride + first;
        for (long b = b0; b < b1; b++) {
          dst[b].real = static_cast<float>(buf[b * n + row][0]) / scale;
          dst[b].imag = static_cast<float>(buf[b * n + row][1]) / scale;
        }
      }
    }
}

// Transforms every line of `lines` with the centring permutation folded into
// the copies: line sample (j + n/2) mod n goes to buffer index j before the
// transform, buffer index (m + (n+1)/2) mod n comes back to sample m after
// it, so the zero frequency sits at index n/2 in both domains, also for odd
// n. Each result is rounded to float and then divided by `scale`, so the
// forward transforms carry 1/N exactly as a float quotient. Returns 1 when
// memory runs out.
int transform_lines(const LineSet &lines, int sign, float scale) {
  const long n = lines.n;
  if (n < 1 || lines.nblocks < 1 || lines.ncolumns < 1) return 0;
  const bool contiguous = lines.stride == 1 && lines.ncolumns == 1;

  // Lines per pass: contiguous lines are taken from consecutive blocks,
  // strided ones from consecutive columns of one block, so that gathering
  // reads a run of samples of each row.
  long batch = BATCH_SAMPLES / n;
  if (batch < 1) batch = 1;
  if (batch > (contiguous ? lines.nblocks : lines.ncolumns))
    batch = contiguous ? lines.nblocks : lines.ncolumns;
  FftwBuffer buffer(static_cast<size_t>(batch * n));
  if (buffer.data == nullptr) {
    kep_text(2, "Not enough memory for the Fourier transform buffer.");
    return 1;
  }
  const int length = static_cast<int>(n);
  FftwPlan plan;
  plan.plan = fftw_plan_many_dft(1, &length, static_cast<int>(batch), buffer.data, nullptr, 1, length,
                                 buffer.data, nullptr, 1, length, sign, FFTW_MEASURE);
  if (plan.plan == nullptr) {
    kep_text(2, "The Fourier transform could not be planned.");
    return 1;
  }
  // Passes are handed out to the threads; each has its own buffer and runs
  // the one plan on it, so every line is transformed alike whatever the thread.
  const long column_passes = (lines.ncolumns + batch - 1) / batch;
  const long passes = contiguous ? (lines.nblocks + batch - 1) / batch : lines.nblocks * column_passes;
  int workers = worker_threads();
  if (workers > passes) workers = static_cast<int>(passes);
  std::vector<std::unique_ptr<FftwBuffer>> buffers(static_cast<size_t>(workers > 1 ? workers - 1 : 0));
  for (auto &b : buffers) {
    b = std::make_unique<FftwBuffer>(static_cast<size_t>(batch * n));
    if (b->data == nullptr) {
      kep_text(2, "Not enough memory for the Fourier transform buffer.");
      return 1;
    }
  }
  std::atomic<long> next{0};
  run_workers(workers, [&](int worker) {
    fftw_complex *buf = worker == 0 ? buffer.data : buffers[static_cast<size_t>(worker - 1)]->data;
    for (long pass = next++; pass < passes; pass = next++) {
      if (kep_interrupted()) break;
      if (contiguous)
        contiguous_pass(lines, plan.plan, buf, batch, pass * batch, scale);
      else
        strided_pass(lines, plan.plan, buf, batch, pass / column_passes, (pass % column_passes) * batch,
                     scale);
    }
  });
  return kep_interrupted() ? 1 : 0;
}

// The lines along `axis` (1 x, 2 y, 3 z) of `nt` volumes starting at `data`.
LineSet spatial_lines(FCOMPLEX *data, IPOINT3D dim, long nt, int axis) {
  const long nx = dim.x, ny = dim.y, nz = dim.z, n2d = nx * ny, n3d = n2d * nz;
  switch (axis) {
    case 1:
      return {data, ny * nz * nt, nx, 1, 1, dim.x};
    case 2:
      return {data, nz * nt, n2d, nx, nx, dim.y};
    default:
      return {data, nt, n3d, n2d, n2d, dim.z};
  }
}

int transform_along(FCOMPLEX *data, IPOINT3D dim, long nt, int axis, int direction) {
  LineSet lines = spatial_lines(data, dim, nt, axis);
  const float scale = direction == -1 ? static_cast<float>(lines.n) : 1.0f;
  return transform_lines(lines, direction == -1 ? FFTW_FORWARD : FFTW_BACKWARD, scale);
}

// Number of volume-list entries.
int count_entries() {
  int count = 0;
  for (const volume_list *v = volume_list_root; v; v = v->next) count++;
  return count;
}

bool is_power_of_two(int n) { return n > 0 && (n & (n - 1)) == 0; }

// Multiplies every sample of one volume by exp(i * slope * (u_x + u_y)) with
// u = (index - (n-1)/2) / n along each transformed axis: the linear phase
// roll around the volume transforms.
void roll_phase(volume_list *vol, int dimension, double slope) {
  const int nx = vol->dim.x, ny = vol->dim.y, nz = vol->dim.z;
  std::vector<double> px(nx, 0.0), py(ny, 0.0);
  if (dimension == 0 || dimension == 2)
    for (int i = 0; i < nx; i++) px[i] = slope * ((i - (nx - 1) / 2.0) / nx);
  if (dimension == 1 || dimension == 2)
    for (int j = 0; j < ny; j++) py[j] = slope * ((j - (ny - 1) / 2.0) / ny);
  FCOMPLEX *s = vol->SpaceTime.fcData;
  for (int k = 0; k < nz; k++)
    for (int j = 0; j < ny; j++)
      for (int i = 0; i < nx; i++, s++) {
        double angle = px[i] + py[j];
        double c = cos(angle), d = sin(angle);
        double re = s->real, im = s->imag;
        s->real = static_cast<float>(re * c - im * d);
        s->imag = static_cast<float>(re * d + im * c);
      }
}

}  // namespace

void swap_x(FCOMPLEX *line, int n, int shift) {
  if (n < 2) return;
  if (n % 2 == 0) {
    for (int i = 0; i < n / 2; i++) {
      FCOMPLEX t = line[i];
      line[i] = line[i + n / 2];
      line[i + n / 2] = t;
    }
    return;
  }
  // Odd n: before a transform (shift 0) sample n/2 goes to index 0, after it
  // (shift 1) sample 0 goes to index n/2, so zero frequency sits at n/2 in
  // both domains.
  std::vector<FCOMPLEX> copy(line, line + n);
  int offset = shift == 0 ? (n + 1) / 2 : n / 2;
  for (int i = 0; i < n; i++) line[(i + offset) % n] = copy[i];
}

int ft_1d(FourierAxis axis, FourierDirection direction) {
  const data_stack *previous = nullptr;
  for (volume_list *v = volume_list_root; v; v = v->next) {
    data_stack *s = v->stack;
    if (s == previous) continue;
    previous = s;
    if (kep_interrupted()) return 1;
    rewriting(s);
    transform_along(s->SpaceTime.fcData, s->dim, s->nt, static_cast<int>(axis), static_cast<int>(direction));
  }
  return kep_interrupted() ? 1 : 0;
}

int ft_time() {
  IPOINT3D dim{0, 0, 0};
  int count = 0;
  if (inconsistent_3d_dimensions(&dim, &count)) return 1;
  const data_stack *previous = nullptr;
  for (volume_list *v = volume_list_root; v; v = v->next) {
    data_stack *s = v->stack;
    if (s == previous) continue;
    previous = s;
    if (kep_interrupted()) return 1;
    rewriting(s);
    LineSet lines{s->SpaceTime.fcData, 1, 0, s->n3d, s->n3d, s->nt};
    transform_lines(lines, FFTW_FORWARD, 1.0f);
  }
  return kep_interrupted() ? 1 : 0;
}

int fft_volume(volume_list *vol, int dimension, int direction) {
  if (direction == 1) roll_phase(vol, dimension, M_PI);
  if (dimension == 0 || dimension == 2) transform_along(vol->SpaceTime.fcData, vol->dim, 1, 1, direction);
  if (dimension == 1 || dimension == 2) transform_along(vol->SpaceTime.fcData, vol->dim, 1, 2, direction);
  if (direction == -1) roll_phase(vol, dimension, -M_PI);
  return 0;
}

int fft_volumes(int dimension, int direction) {
  for (const volume_list *v = volume_list_root; v; v = v->next) {
    bool x_ok = dimension == 1 || is_power_of_two(v->dim.x);
    bool y_ok = dimension == 0 || is_power_of_two(v->dim.y);
    if (!x_ok || !y_ok) {
      kep_text(2, "Data dimensions must be integral powers of 2 for a FFT.");
      return 1;
    }
  }
  int count = 0;
  for (volume_list *v = volume_list_root; v; v = v->next) {
    printf("ft in direction %d\n", direction);
    fft_volume(v, dimension, direction);
    count++;
  }
  if (dimension == 2)
    printf("%d volumes were transformed in two dimensions.\n", count);
  else
    printf("%d volumes were transformed in one dimension.\n", count);
  return 0;
}

int smooth_in_kspace(float fwhm, int dimensions) {
  ft_1d(FourierAxis::X, FourierDirection::Inverse);
  ft_1d(FourierAxis::Y, FourierDirection::Inverse);
  if (dimensions == 3) ft_1d(FourierAxis::Z, FourierDirection::Inverse);

  // 2 ln 2 / pi^2 over the squared width, divided in double and kept as a float.
  const float c = static_cast<float>(0.1404824543408127 / static_cast<double>(fwhm * fwhm));
  // One factor per index along an axis; the weight of a sample is their product.
  auto axis_weights = [c](std::vector<float> &w, int n, float resolution) {
    w.resize(static_cast<size_t>(n));
    const float fn = static_cast<float>(n);
    const float denominator = resolution * resolution * fn * fn * c;
    for (int i = 0; i < n; i++) {
      float k = static_cast<float>(i - n / 2) + 0.5f;
      w[static_cast<size_t>(i)] = static_cast<float>(exp(static_cast<double>(k * k / -2.0f / denominator)));
    }
  };
  std::vector<float> wx, wy, wz;
  const int count = count_entries();
  int i = 0;
  for (volume_list *v = volume_list_root; v; v = v->next, i++) {
    if (kep_interrupted()) return 1;
    const int nx = v->dim.x, ny = v->dim.y, nz = v->dim.z;
    axis_weights(wx, nx, v->stack->resolution.x);
    axis_weights(wy, ny, v->stack->resolution.y);
    if (dimensions == 3)
      axis_weights(wz, nz, v->stack->resolution.z);
    else
      wz.assign(static_cast<size_t>(nz), 1.0f);
    FCOMPLEX *s = v->SpaceTime.fcData;
    // The float product gx * gy * gz is formed left to right (gz is 1 in
    // 2-D): another grouping rounds differently.
    for (int z = 0; z < nz; z++)
      for (int y = 0; y < ny; y++) {
        const float gy = wy[static_cast<size_t>(y)], gz = wz[static_cast<size_t>(z)];
        for (int x = 0; x < nx; x++, s++) {
          const float w = wx[static_cast<size_t>(x)] * gy * gz;
          s->real *= w;
          s->imag *= w;
        }
      }
    if (count > 10 && i >= 1 && (4 * i) % count == 0) printf("%d percent done\n", 100 * i / count);
  }

  ft_1d(FourierAxis::X, FourierDirection::Forward);
  ft_1d(FourierAxis::Y, FourierDirection::Forward);
  if (dimensions == 3) ft_1d(FourierAxis::Z, FourierDirection::Forward);
  return kep_interrupted() ? 1 : 0;
}

int hamming_window(WindowAxes axes) {
  // The window runs from 0.08 at index 0 through 1 in the middle to 0.08 at
  // n - 1; a line of one sample divides 0 by 0.
  auto axis_weights = [](std::vector<double> &w, int n) {
    w.resize(static_cast<size_t>(n));
    for (int i = 0; i < n; i++) {
      float fraction = static_cast<float>(i) / static_cast<float>(n - 1);
      w[static_cast<size_t>(i)] = 0.54 + (-0.46) * cos(6.283185308 * fraction);
    }
  };
  std::vector<double> wx, wy, wz;
  const data_stack *previous = nullptr;
  for (volume_list *v = volume_list_root; v; v = v->next) {
    data_stack *st = v->stack;
    if (st == previous) continue;
    previous = st;
    const int nx = st->dim.x, ny = st->dim.y, nz = st->dim.z;
    axis_weights(wx, nx);
    axis_weights(wy, ny);
    if (axes == WindowAxes::XYZ)
      axis_weights(wz, nz);
    else
      wz.assign(static_cast<size_t>(nz), 1.0);
    FCOMPLEX *s = st->SpaceTime.fcData;
    for (int t = 0; t < st->nt; t++)
      for (int z = 0; z < nz; z++)
        for (int y = 0; y < ny; y++)
          for (int x = 0; x < nx; x++, s++) {
            const double w =
                wx[static_cast<size_t>(x)] * wy[static_cast<size_t>(y)] * wz[static_cast<size_t>(z)];
            s->real = static_cast<float>(s->real * w);
            s->imag = static_cast<float>(s->imag * w);
          }
  }
  return 0;
}

int exponential_filter_1d(float value) {
  std::vector<double> w;
  for (volume_list *v = volume_list_root; v; v = v->next) {
    const int nx = v->dim.x;
    w.resize(static_cast<size_t>(nx));
    for (int x = 0; x < nx; x++) {
      const double dx = x;
      w[static_cast<size_t>(x)] = exp(dx / value) * exp(-dx * dx / (static_cast<double>(value) * value));
    }
    FCOMPLEX *s = v->SpaceTime.fcData;
    const long rows = static_cast<long>(v->dim.y) * v->dim.z;
    for (long r = 0; r < rows; r++)
      for (int x = 0; x < nx; x++, s++) {
        s->real = static_cast<float>(s->real * w[static_cast<size_t>(x)]);
        s->imag = static_cast<float>(s->imag * w[static_cast<size_t>(x)]);
      }
  }
  return 0;
}

int edge_filter() {
  static const int kernel[3][3] = {{1, 2, 1}, {0, 0, 0}, {-1, -2, -1}};
  std::vector<float> amplitude;
  std::vector<FCOMPLEX> result;
  for (volume_list *v = volume_list_root; v; v = v->next) {
    const int nx = v->dim.x, ny = v->dim.y, nz = v->dim.z;
    const long n2d = static_cast<long>(nx) * ny, n3d = n2d * nz;
    // The wrap maps -1 and n-1 to 0 but leaves n, so the neighbour below the
    // last row is the first row of the next slice, and past the last slice
    // the first row of the stack's next volume. Reads that leave the stack
    // count as amplitude 0.
    long reach = n3d + nx + 1;  // the farthest read: row ny, column nx of the last slice
    if (v->stack != nullptr)
      reach = std::min(reach,
                       static_cast<long>(v->stack->n4d - (v->SpaceTime.fcData - v->stack->SpaceTime.fcData)));
    reach = std::max(reach, n3d);
    amplitude.resize(static_cast<size_t>(reach));
    for (long n = 0; n < reach; n++) amplitude[static_cast<size_t>(n)] = volume_amp(v, n);
    result.assign(static_cast<size_t>(n3d), FCOMPLEX{0.0f, 0.0f});
    for (int z = 0; z < nz; z++)
      for (int x = 0; x < nx; x++)
        for (int y = 0; y < ny; y++) {
          float gx = 0.0f, gy = 0.0f, sum = 0.0f;
          for (int a = 0; a < 3; a++) {
            int xx = x + a - 1;
            if (xx < 0) xx = nx - 1;
            if (xx == nx - 1) xx = 0;
            for (int b = 0; b < 3; b++) {
              int yy = y + b - 1;
              if (yy < 0) yy = ny - 1;
              if (yy == ny - 1) yy = 0;
              const long index = z * n2d + static_cast<long>(yy) * nx + xx;
              const float amp = index < reach ? amplitude[static_cast<size_t>(index)] : 0.0f;
              gx += static_cast<float>(kernel[a][b]) * amp;
              gy += static_cast<float>(kernel[b][a]) * amp;
              sum += amp;
            }
          }
          if (sum != 0.0f)
            result[static_cast<size_t>(z * n2d + static_cast<long>(y) * nx + x)].real =
                static_cast<float>(sqrt(static_cast<double>(gx) * gx + static_cast<double>(gy) * gy) / sum);
        }
    memcpy(v->SpaceTime.fcData, result.data(), sizeof(FCOMPLEX) * static_cast<size_t>(n3d));
  }
  return 0;
}
