// NIfTI-1 and NIfTI-2 headers, decoded from their bytes by our own code.
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "fatal.h"
#include "header-parts.h"
#include "io.h"
#include "numerics.h"
#include "util.h"

using namespace header_parts;

static_assert(sizeof(nifti_1_header) == NIFTI_HEADER_SIZE, "the NIfTI-1 header must be 348 bytes");

namespace {

void set_orientation_from_matrix(XD_HEADER *h) {
  const mat44 &m = h->ijk_to_xyz;
  h->origin = {m.m[0][3], m.m[1][3], m.m[2][3]};
  h->direction = {m.m[0][0] > 0 ? 1.0f : -1.0f, m.m[1][1] > 0 ? 1.0f : -1.0f, m.m[2][2] > 0 ? 1.0f : -1.0f};
  h->off_diagonal = 0;
  for (int r = 0; r < 3; r++)
    for (int c = 0; c < 3; c++)
      if (r != c && m.m[r][c] != 0.0f) h->off_diagonal = 1;
}

void swap_nifti_header(nifti_1_header *n) {
  swap_32(&n->sizeof_hdr);
  swap_32(&n->extents);
  swap_16(&n->session_error);
  for (short &d : n->dim) swap_16(&d);
  swap_32(&n->intent_p1);
  swap_32(&n->intent_p2);
  swap_32(&n->intent_p3);
  swap_16(&n->intent_code);
  swap_16(&n->datatype);
  swap_16(&n->bitpix);
  swap_16(&n->slice_start);
  for (float &p : n->pixdim) swap_32(&p);
  swap_32(&n->vox_offset);
  swap_32(&n->scl_slope);
  swap_32(&n->scl_inter);
  swap_16(&n->slice_end);
  swap_32(&n->cal_max);
  swap_32(&n->cal_min);
  swap_32(&n->slice_duration);
  swap_32(&n->toffset);
  swap_32(&n->glmax);
  swap_32(&n->glmin);
  swap_16(&n->qform_code);
  swap_16(&n->sform_code);
  swap_32(&n->quatern_b);
  swap_32(&n->quatern_c);
  swap_32(&n->quatern_d);
  swap_32(&n->qoffset_x);
  swap_32(&n->qoffset_y);
  swap_32(&n->qoffset_z);
  for (int i = 0; i < 4; i++) {
    swap_32(&n->srow_x[i]);
    swap_32(&n->srow_y[i]);
    swap_32(&n->srow_z[i]);
  }
}

int32_t int_at(const unsigned char *bytes) {
  int32_t v;
  memcpy(&v, bytes, sizeof v);
  return v;
}

// NIfTI datatype to storage type (and complex pairs); anything else is refused.
struct nifti_storage {
  int datatype;
  int storage;
  int data_type;
};
constexpr nifti_storage nifti_storages[] = {
    {NIFTI_UINT8, STORAGE_UCHAR, DATA_MAGNITUDE},    {NIFTI_INT16, STORAGE_SHORT, DATA_MAGNITUDE},
    {NIFTI_INT32, STORAGE_LONG, DATA_MAGNITUDE},     {NIFTI_FLOAT32, STORAGE_FLOAT, DATA_MAGNITUDE},
    {NIFTI_COMPLEX64, STORAGE_FLOAT, DATA_COMPLEX},  {NIFTI_UINT16, STORAGE_USHORT, DATA_MAGNITUDE},
    {NIFTI_FLOAT64, STORAGE_DOUBLE, DATA_MAGNITUDE}, {NIFTI_INT8, STORAGE_CHAR, DATA_MAGNITUDE},
    {NIFTI_UINT32, STORAGE_UINT32, DATA_MAGNITUDE},  {NIFTI_INT64, STORAGE_INT64, DATA_MAGNITUDE},
    {NIFTI_UINT64, STORAGE_UINT64, DATA_MAGNITUDE}};

void fields_from_nifti1(const nifti_1_header &n, nifti_fields *f) {
  for (int k = 0; k < 8; k++) {
    f->dim[k] = n.dim[k];
    f->pixdim[k] = n.pixdim[k];
  }
  f->datatype = n.datatype;
  f->vox_offset = n.vox_offset;
  f->scl_slope = n.scl_slope;
  f->scl_inter = n.scl_inter;
  f->qform_code = n.qform_code;
  f->sform_code = n.sform_code;
  const float q[3] = {n.quatern_b, n.quatern_c, n.quatern_d}, o[3] = {n.qoffset_x, n.qoffset_y, n.qoffset_z};
  for (int k = 0; k < 3; k++) {
    f->quatern[k] = q[k];
    f->qoffset[k] = o[k];
  }
  for (int c = 0; c < 4; c++) {
    f->srow[0][c] = n.srow_x[c];
    f->srow[1][c] = n.srow_y[c];
    f->srow[2][c] = n.srow_z[c];
  }
  f->xyzt_units = static_cast<unsigned char>(n.xyzt_units);
  memcpy(f->descrip, n.descrip, sizeof f->descrip);
}

// A field of a NIfTI-2 header at its byte offset, in the file's byte order.
template <typename T>
T nifti2_field(const unsigned char *bytes, size_t offset, bool swap) {
  unsigned char b[sizeof(T)];
  memcpy(b, bytes + offset, sizeof b);
  if (swap)
    for (size_t i = 0; i < sizeof b / 2; i++) std::swap(b[i], b[sizeof b - 1 - i]);
  T v;
  memcpy(&v, b, sizeof v);
  return v;
}

void fields_from_nifti2(const unsigned char *b, bool swap, nifti_fields *f) {
  for (int k = 0; k < 8; k++) {
    f->dim[k] = nifti2_field<int64_t>(b, 16 + 8 * k, swap);
    f->pixdim[k] = nifti2_field<double>(b, 104 + 8 * k, swap);
  }
  f->datatype = nifti2_field<int16_t>(b, 12, swap);
  f->vox_offset = static_cast<double>(nifti2_field<int64_t>(b, 168, swap));
  f->scl_slope = nifti2_field<double>(b, 176, swap);
  f->scl_inter = nifti2_field<double>(b, 184, swap);
  memcpy(f->descrip, b + 240, sizeof f->descrip);
  f->qform_code = nifti2_field<int32_t>(b, 344, swap);
  f->sform_code = nifti2_field<int32_t>(b, 348, swap);
  for (int k = 0; k < 3; k++) {
    f->quatern[k] = nifti2_field<double>(b, 352 + 8 * k, swap);
    f->qoffset[k] = nifti2_field<double>(b, 376 + 8 * k, swap);
  }
  for (int r = 0; r < 3; r++)
    for (int c = 0; c < 4; c++) f->srow[r][c] = nifti2_field<double>(b, 400 + 32 * r + 8 * c, swap);
  f->xyzt_units = nifti2_field<int32_t>(b, 500, swap);
}

// Seconds per unit of pixdim[4] as the header's time unit says (seconds when unset).
double seconds_per_time_unit(int xyzt_units) {
  switch (xyzt_units & 0x38) {
    case 16:
      return 1e-3;
    case 24:
      return 1e-6;
    default:
      return 1.0;
  }
}

bool report_nifti_method = true;

}  // namespace

void header_parts::set_nifti_method_report(bool on) { report_nifti_method = on; }

int decode_nifti_header(const unsigned char *bytes, size_t size, const char *header_name, XD_HEADER *h) {
  int32_t sizeof_hdr = int_at(bytes), swapped_size = sizeof_hdr;
  swap_32(&swapped_size);
  const bool version2 = sizeof_hdr == NIFTI2_HEADER_SIZE || swapped_size == NIFTI2_HEADER_SIZE;
  const size_t header_size = version2 ? NIFTI2_HEADER_SIZE : NIFTI_HEADER_SIZE;
  if (version2 && size < header_size) {
    printf("Error: the NIFTI-2 header of file %s is cut short.\n", header_name);
    return 1;
  }
  if (version2 && h->file_type != FILE_NII) {
    printf("Error: %s is a NIFTI-2 header; kep reads NIFTI-2 only as single files (.nii, .nii.gz).\n",
           header_name);
    return 1;
  }
  // Only the first extension is looked at, and only for the degrees of freedom.
  if (size >= header_size + 4 && bytes[header_size] != 0) {
    const unsigned char *ext = bytes + header_size + 4;
    if (size < header_size + 8) {
      printf("Error: A NIFTI1 extension was indicated, but it is missing.\n");
      return 1;
    }
    if (size < header_size + 12) {
      printf("Error: A NIFTI1 extension was indicated, but the ecode is missing.\n");
      return 1;
    }
    if (int_at(ext + 4) == NIFTI_DOF_ECODE) {
      if (size < header_size + 16) {
        printf("Error read degrees of freedom.\n");
        return 1;
      }
      h->lDOF = int_at(ext + 8);
    }
  }
  nifti_fields f;
  if (version2) {
    const bool swap = sizeof_hdr != NIFTI2_HEADER_SIZE;
    fields_from_nifti2(bytes, swap, &f);
    // The data are in the file's order, which is not the machine's.
    if (swap) h->byte_order = 1 - machine_byte_order();
  } else {
    nifti_1_header n;
    memcpy(&n, bytes, sizeof n);
    if (n.dim[0] < 1 || n.dim[0] > 7) {
      swap_nifti_header(&n);
      h->byte_order = 1 - machine_byte_order();
    }
    fields_from_nifti1(n, &f);
  }
  for (int k = 1; k <= (f.dim[0] >= 4 ? 4 : 3); k++)
    if (f.dim[k] > INT_MAX) {
      printf("Error: the dimensions in file '%s' hold more samples than kep can store.\n", header_name);
      return 1;
    }
  h->dim = {static_cast<int>(f.dim[1]), static_cast<int>(f.dim[2]), static_cast<int>(f.dim[3])};
  // Dimensions beyond time are accepted when each holds a single element.
  bool higher = f.dim[0] > 7;
  for (int64_t k = 5; k <= f.dim[0] && k < 8; k++) higher = higher || f.dim[k] != 1;
  if (f.dim[0] > 4 && higher) {
    printf("Error: kep does not currently handle data of dimensionality (%lld) > 4.\n",
           static_cast<long long>(f.dim[0]));
    return 1;
  }
  h->nt = f.dim[0] >= 4 ? static_cast<int>(f.dim[4]) : 1;
  h->resolution = {static_cast<float>(f.pixdim[1]), static_cast<float>(f.pixdim[2]),
                   static_cast<float>(f.pixdim[3])};
  h->resolution_t = static_cast<float>(f.pixdim[4] * seconds_per_time_unit(f.xyzt_units));
  // A slope that is not a finite number means no scaling, as files in
  // circulation that carry NaN there intend.
  h->scale_slope = std::isfinite(f.scl_slope) ? static_cast<float>(f.scl_slope) : 0.0f;
  h->scale_offset = static_cast<float>(f.scl_inter);
  h->qfac = static_cast<float>(f.pixdim[0]);
  h->quaternion = {static_cast<float>(f.quatern[0]), static_cast<float>(f.quatern[1]),
                   static_cast<float>(f.quatern[2])};
  h->voxel_offset = static_cast<float>(f.vox_offset);
  memcpy(h->description, f.descrip, sizeof h->description);
  h->description[sizeof h->description - 1] = '\0';
  const nifti_storage *known = nullptr;
  for (const nifti_storage &k : nifti_storages)
    if (k.datatype == f.datatype) known = &k;
  if (known == nullptr) {
    printf("Error: the Nifti data storage type %d is not supported.\n", f.datatype);
    return 1;
  }
  h->storage_type = known->storage;
  h->data_type = known->data_type;
  if (check_dimensions(h, header_name)) return 1;
  if (!(h->voxel_offset >= 0.0f && h->voxel_offset < 1e15f)) {
    printf("Error: the voxel offset (%g) in file %s is not valid.\n", h->voxel_offset, header_name);
    return 1;
  }
  // A single file keeps its data after the header and extender; older
  // writers left vox_offset 0 there.
  if (h->file_type == FILE_NII && h->voxel_offset < header_size + 4)
    h->voxel_offset = static_cast<float>(header_size + 4);
  // The standard's order: the sform when set, else the quaternion, else the
  // grid alone. Files written with an sform only are the common case.
  int method;
  if (f.sform_code > 0) {
    method = 3;
    float rows[3][4];
    for (int r = 0; r < 3; r++)
      for (int c = 0; c < 4; c++) rows[r][c] = static_cast<float>(f.srow[r][c]);
    h->ijk_to_xyz = general_affine_to_mat44(rows[0], rows[1], rows[2]);
  } else if (f.qform_code > 0) {
    method = 2;
    h->ijk_to_xyz = nifti_quatern_to_mat44(h->quaternion.x, h->quaternion.y, h->quaternion.z,
                                           static_cast<float>(f.qoffset[0]), static_cast<float>(f.qoffset[1]),
                                           static_cast<float>(f.qoffset[2]), h->resolution.x, h->resolution.y,
                                           h->resolution.z, h->qfac);
  } else {
    method = 1;
    h->origin = {0.0f, 0.0f, 0.0f};
    h->ijk_to_xyz = scale_and_shift_to_mat44(h->resolution.x, h->resolution.y, h->resolution.z, 0.0f, 0.0f,
                                             0.0f, h->direction.x, h->direction.y, h->direction.z);
  }
  set_orientation_from_matrix(h);
  static const char *methods[] = {"", "1: the old analyze format", "2: quaternion rotations",
                                  "3: affine transformation of voxel indices"};
  if (report_nifti_method)
    printf("The NIFTI header for file %s uses Method %s\n", h->file_name, methods[method]);
  return 0;
}

bool machine_order_nifti1_fields(const unsigned char *bytes, size_t size, nifti_fields *fields) {
  if (size < NIFTI_HEADER_SIZE || int_at(bytes) != NIFTI_HEADER_SIZE) return false;
  nifti_1_header n;
  memcpy(&n, bytes, sizeof n);
  fields_from_nifti1(n, fields);
  return true;
}

int read_nifti_header(const char *name, XD_HEADER *h) {
  char header_name[KEP_LINE];
  if (h->file_type == FILE_IMG) {
    if (replace_extension(name, "hdr", header_name)) return 1;
  } else {
    snprintf(header_name, sizeof header_name, "%s", name);
  }
  volume_source file(header_name, gzipped_nifti_name(header_name));
  if (!file.is_open()) {
    printf("Error: cannot open Nifti file %s.\n", header_name);
    return 1;
  }
  unsigned char bytes[NIFTI2_HEADER_SIZE + 16];
  size_t size = file.read(bytes, NIFTI_HEADER_SIZE);
  if (size < NIFTI_HEADER_SIZE && gzipped_nifti_name(header_name)) {
    // A cut or damaged download: reported like any unreadable file.
    printf("Error: cannot read the NIFTI header of the compressed file %s; it is cut short or damaged.\n",
           header_name);
    return 1;
  }
  if (size < NIFTI_HEADER_SIZE) {
    if (!kep_batch_run) {
      // At the prompt the session and its stacks outlive an empty or cut file.
      printf("Error: the file %s is shorter than a NIFTI header (%ld bytes).\n", header_name,
             static_cast<long>(NIFTI_HEADER_SIZE));
      return 1;
    }
    fatal f;
    f.text = std::string("\nError reading header file ") + header_name + "\n";
    f.stream = fatal::on_stderr;
    f.flush_stdout_first = false;  // as printed here before, ahead of what standard output holds
    throw f;
  }
  int32_t sizeof_hdr = int_at(bytes), swapped_size = sizeof_hdr;
  swap_32(&swapped_size);
  size_t header_size = NIFTI_HEADER_SIZE;
  if (sizeof_hdr == NIFTI2_HEADER_SIZE || swapped_size == NIFTI2_HEADER_SIZE) {
    header_size = NIFTI2_HEADER_SIZE;
    size += file.read(bytes + size, header_size - size);
    if (size < header_size) {
      printf("Error: the NIFTI-2 header of file %s is cut short.\n", header_name);
      return 1;
    }
  }
  // The extender, and when it announces one, the extension's size, code and first word.
  size += file.read(bytes + size, 4);
  if (size == header_size + 4 && bytes[header_size] != 0) size += file.read(bytes + size, 12);
  return decode_nifti_header(bytes, size, header_name, h);
}
