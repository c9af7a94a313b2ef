// Thresholds of statistical maps: `threshold-p` turns one p-map volume into an
// overlay (false discovery rate, Bonferroni or uncorrected), `clusters` finds
// the 26-connected clusters of one z-map volume beyond a threshold, tables
// them and keeps their index map. Both read the real part of the samples, so
// negative statistics keep their sign whatever the stack's form.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "io.h"
#include "kep-decode.h"
#include "kep-glm-frame.h"
#include "kep-glm-maps.h"
#include "kep-ovl.h"
#include "kep-stacks.h"
#include "kep.h"
#include "numerics.h"

namespace {

// Reads a real number the way %f reads one; false when the word is none.
bool read_real(const char *word, double *value) {
  float f = 0.0f;
  if (sscanf(word, "%f", &f) != 1) return false;
  *value = f;
  return true;
}

// Decodes the rest of the argument text as a list of exactly one volume.
const volume_list *single_volume(char *text, const char *rest, const char *command) {
  memmove(text, rest, strlen(rest) + 1);
  if (decode_volume_list(0, text)) return nullptr;
  if (volume_list_root == nullptr || volume_list_root->next != nullptr) {
    kep_textf(2, "Pass a single volume to %s.", command);
    return nullptr;
  }
  return volume_list_root;
}

float real_part(const volume_list *v, long n) { return v->re(n); }

IPOINT3D voxel_point(long v, const data_stack *s) {
  const long z = v / s->n2d, y = (v - s->n2d * z) / s->dim.x;
  return {static_cast<int>(v - s->n2d * z - s->dim.x * y), static_cast<int>(y), static_cast<int>(z)};
}

// Makes the overlay from a set of voxels (weight 1), by the overlay logic.
int overlay_from(const std::vector<long> &voxels, const data_stack *s) {
  std::vector<IPOINT3D> points;
  points.reserve(voxels.size());
  for (long v : voxels) points.push_back(voxel_point(v, s));
  if (combine_overlay(points, std::vector<float>(points.size(), 1.0f))) return 1;
  printf("An overlay of %d voxels was defined.\n", overlay.nvoxels);
  return 0;
}

POINT3D world(const mat44 &m, double i, double j, double k) {
  double r[3];
  for (int row = 0; row < 3; row++)
    r[row] = m.m[row][0] * i + m.m[row][1] * j + m.m[row][2] * k + m.m[row][3];
  return {static_cast<float>(r[0]), static_cast<float>(r[1]), static_cast<float>(r[2])};
}

struct Cluster {
  long voxels = 0;
  double peak = 0.0;
  long peak_voxel = 0;
  double mass = 0.0, cx = 0.0, cy = 0.0, cz = 0.0;  // |z|-weighted sums of voxel coordinates
  std::vector<long> members;
};

}  // namespace

int threshold_p_command(char *text) {
  char method[KEP_LINE], word[KEP_LINE];
  const char *rest = next_word(text, method);
  const char *after = rest ? next_word(rest, word) : nullptr;
  double level = 0.0;
  if (rest == nullptr || after == nullptr || !read_real(word, &level) ||
      (strcmp(method, "fdr") != 0 && strcmp(method, "bonferroni") != 0 &&
       strcmp(method, "uncorrected") != 0)) {
    kep_text(2, "Syntax = `threshold-p fdr|bonferroni|uncorrected <level> <p-map volume>'.");
    return 1;
  }
  if (!(level > 0.0 && level <= 1.0)) {
    kep_textf(2, "The level %g of threshold-p must lie above 0 and at most 1.", level);
    return 1;
  }
  const volume_list *v = single_volume(text, after, "threshold-p");
  if (v == nullptr) return 1;
  const data_stack *s = v->stack;
  // The voxels tested: those of the GLM mask, else those with a p at all.
  const data_stack *mask = glm_mask_stack();
  std::vector<char> tested(v->n3d, 0);
  if (mask != nullptr) {
    if (mask->dim.x != s->dim.x || mask->dim.y != s->dim.y || mask->dim.z != s->dim.z) {
      kep_textf(2, "The GLM mask %s (%dx%dx%d) does not match the stack %s (%dx%dx%d).", mask->name,
                mask->dim.x, mask->dim.y, mask->dim.z, s->name, s->dim.x, s->dim.y, s->dim.z);
      return 1;
    }
    for (long n = 0; n < v->n3d; n++) tested[n] = stack_amp(mask, n) != 0.0f && !std::isnan(real_part(v, n));
  } else {
    for (long n = 0; n < v->n3d; n++) tested[n] = real_part(v, n) != 0.0f && !std::isnan(real_part(v, n));
  }
  std::vector<float> p;
  for (long n = 0; n < v->n3d; n++)
    if (tested[n]) p.push_back(real_part(v, n));
  const long m = static_cast<long>(p.size());
  double cut = 0.0;
  bool any = false;
  if (strcmp(method, "uncorrected") == 0) {
    cut = level;
    any = true;
  } else if (strcmp(method, "bonferroni") == 0) {
    cut = m > 0 ? level / m : 0.0;
    any = m > 0;
  } else {
    // Benjamini-Hochberg: the largest p(k) with p(k) <= k level / m.
    std::sort(p.begin(), p.end());
    for (long k = m; k >= 1; k--)
      if (p[k - 1] <= k * level / m) {
        cut = p[k - 1];
        any = true;
        break;
      }
  }
  std::vector<long> pass;
  if (any)
    for (long n = 0; n < v->n3d; n++)
      if (tested[n] && real_part(v, n) <= cut) pass.push_back(n);
  if (any)
    printf("%s at %g over %ld voxels: p cut-off %g; %ld voxels pass.\n", method, level, m, cut,
           static_cast<long>(pass.size()));
  else
    printf("%s at %g over %ld voxels: no voxel passes.\n", method, level, m);
  return overlay_from(pass, s);
}

int clusters_command(char *text) {
  char word[KEP_LINE], name[KEP_LINE];
  double threshold = 0.0;
  int min_voxels = 0;
  const char *p = next_word(text, word);
  const bool have_threshold = p != nullptr && read_real(word, &threshold);
  if (have_threshold) p = next_word(p, word);
  const bool have_size = have_threshold && p != nullptr && sscanf(word, "%d", &min_voxels) == 1;
  if (have_size) p = next_word(p, name);
  if (!have_size || p == nullptr) {
    kep_text(2, "Syntax = `clusters <z threshold> <minimum voxels> <name> <z-map volume>'.");
    return 1;
  }
  if (!(threshold >= 0.0) || std::isinf(threshold)) {
    kep_textf(2, "The z threshold %g of clusters must be 0 or more.", threshold);
    return 1;
  }
  if (strchr(name, '>') != nullptr) {
    kep_text(2, "Do not use > in a stack name.");
    return 1;
  }
  const volume_list *v = single_volume(text, p, "clusters");
  if (v == nullptr) return 1;
  data_stack *s = v->stack;
  if (strcmp(name, s->name) == 0) {
    kep_textf(2, "The cluster map cannot replace the stack %s that is being read.", name);
    return 1;
  }
  const long nvox = v->n3d, nx = s->dim.x, ny = s->dim.y, nz = s->dim.z;
  // Label the voxels beyond +threshold, then those beyond -threshold, each by a flood fill.
  std::vector<int> label(nvox, 0);
  std::vector<Cluster> found;
  std::vector<long> todo;
  for (int sign = 1; sign >= -1; sign -= 2) {
    auto beyond = [&](long n) { return sign * real_part(v, n) > threshold; };
    for (long seed = 0; seed < nvox; seed++) {
      if (label[seed] != 0 || !beyond(seed)) continue;
      found.emplace_back();
      Cluster &c = found.back();
      const int id = static_cast<int>(found.size());
      label[seed] = id;
      todo.assign(1, seed);
      while (!todo.empty()) {
        const long n = todo.back();
        todo.pop_back();
        c.members.push_back(n);
        const IPOINT3D q = voxel_point(n, s);
        const double z = real_part(v, n), weight = fabs(z);
        if (c.voxels == 0 || sign * z > sign * c.peak || (sign * z == sign * c.peak && n < c.peak_voxel)) {
          c.peak = z;
          c.peak_voxel = n;
        }
        c.voxels++;
        c.mass += weight;
        c.cx += weight * q.x;
        c.cy += weight * q.y;
        c.cz += weight * q.z;
        for (int dz = -1; dz <= 1; dz++)
          for (int dy = -1; dy <= 1; dy++)
            for (int dx = -1; dx <= 1; dx++) {
              const long x = q.x + dx, y = q.y + dy, k = q.z + dz;
              if (x < 0 || y < 0 || k < 0 || x >= nx || y >= ny || k >= nz) continue;
              const long neighbour = (k * ny + y) * nx + x;
              if (label[neighbour] == 0 && beyond(neighbour)) {
                label[neighbour] = id;
                todo.push_back(neighbour);
              }
            }
      }
    }
  }
  std::vector<const Cluster *> kept;
  for (const Cluster &c : found)
    if (c.voxels >= min_voxels) kept.push_back(&c);
  std::stable_sort(kept.begin(), kept.end(), [](const Cluster *a, const Cluster *b) {
    if (a->voxels != b->voxels) return a->voxels > b->voxels;
    return fabs(a->peak) > fabs(b->peak);
  });

  char file_name[KEP_LINE + 16];
  snprintf(file_name, sizeof file_name, "%s.clusters", name);
  FILE *table = fopen_regular(file_name, "w");
  if (table == nullptr) {
    kep_textf(2, "I cannot open the cluster table %s.", file_name);
    return 1;
  }
  // World positions as the files kep writes give them (resolution, origin, direction).
  const mat44 world_of =
      scale_and_shift_to_mat44(s->resolution.x, s->resolution.y, s->resolution.z, s->origin.x, s->origin.y,
                               s->origin.z, s->direction.x, s->direction.y, s->direction.z);
  const double voxel_mm3 = fabs(static_cast<double>(s->resolution.x) * s->resolution.y * s->resolution.z);
  const char *header = "# id voxels mm3 peak-z peak-x peak-y peak-z-mm centre-x centre-y centre-z\n";
  fputs(header, table);
  printf("%d clusters of at least %d voxels beyond z %g in %s:\n%s", static_cast<int>(kept.size()),
         min_voxels, threshold, s->name, header);
  for (size_t i = 0; i < kept.size(); i++) {
    const Cluster &c = *kept[i];
    const IPOINT3D q = voxel_point(c.peak_voxel, s);
    const POINT3D peak = world(world_of, q.x, q.y, q.z);
    const POINT3D centre = world(world_of, c.cx / c.mass, c.cy / c.mass, c.cz / c.mass);
    char line[512];
    snprintf(line, sizeof line, "%d %ld %.7g %.7g %.7g %.7g %.7g %.7g %.7g %.7g\n", static_cast<int>(i + 1),
             c.voxels, c.voxels * voxel_mm3, c.peak, peak.x, peak.y, peak.z, centre.x, centre.y, centre.z);
    fputs(line, table);
    fputs(line, stdout);
  }
  const bool written = ferror(table) == 0;
  if (fclose(table) != 0 || !written) {
    kep_textf(2, "The cluster table %s could not be written.", file_name);
    return 1;
  }

  data_stack *out = install_stack_checked(name, s, s->dim.x, s->dim.y, s->dim.z, 1, SampleForm::Real);
  if (out == nullptr) return 1;
  out->status |= STATUS_POLAR | STATUS_MAP;
  out->fov = s->fov;  // the geometry came with the template, on the same grid
  float *index = out->reals.get();
  std::fill(index, index + out->n4d, 0.0f);
  std::vector<long> members;
  for (size_t i = 0; i < kept.size(); i++)
    for (long n : kept[i]->members) {
      index[n] = static_cast<float>(i + 1);
      members.push_back(n);
    }
  std::sort(members.begin(), members.end());
  return overlay_from(members, out);
}
