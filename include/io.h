// Volume file headers: the decoded header record, the format codes and the
// header readers shared by the file commands.
#pragma once

#include <cstddef>
#include <cstdio>

#include "types.h"

// File kinds, told by the name (classify_file_name). Command and overlay
// files are opened by the read command itself; the others are volumes.
constexpr int FILE_COMMANDS = 0;
constexpr int FILE_BSHORT = 1;
constexpr int FILE_BFLOAT = 2;
constexpr int FILE_BLONG = 3;
constexpr int FILE_USHORT = 4;
constexpr int FILE_NII = 6;
constexpr int FILE_IMG = 7;
constexpr int FILE_FREESURFER = 8;
constexpr int FILE_OVERLAY = 9;
constexpr int FILE_UNKNOWN = -1;

// Storage type codes (".hdr" word "storage-type", NIfTI datatype).
constexpr int STORAGE_SHORT = 1;
constexpr int STORAGE_FLOAT = 2;
constexpr int STORAGE_LONG = 3;
constexpr int STORAGE_USHORT = 4;
constexpr int STORAGE_UCHAR = 5;
// Element types only NIfTI files carry; read, never written.
constexpr int STORAGE_DOUBLE = 6;
constexpr int STORAGE_CHAR = 7;
constexpr int STORAGE_UINT32 = 8;
constexpr int STORAGE_INT64 = 9;
constexpr int STORAGE_UINT64 = 10;

// Bytes of one stored element of a storage type (0 for an unknown code).
int storage_element_size(int storage);

// Data type codes.
constexpr int DATA_MAGNITUDE = 0;
constexpr int DATA_COMPLEX = 1;
constexpr int DATA_MAGNITUDE_PHASE = 2;

// Byte order codes.
constexpr int BIG_ENDIAN_ORDER = 0;
constexpr int LITTLE_ENDIAN_ORDER = 1;

// NIfTI-1 datatype codes and the degrees-of-freedom extension code.
constexpr int NIFTI_UINT8 = 2;
constexpr int NIFTI_INT16 = 4;
constexpr int NIFTI_INT32 = 8;
constexpr int NIFTI_FLOAT32 = 16;
constexpr int NIFTI_COMPLEX64 = 32;
constexpr int NIFTI_UINT16 = 512;
constexpr int NIFTI_FLOAT64 = 64;
constexpr int NIFTI_INT8 = 256;
constexpr int NIFTI_UINT32 = 768;
constexpr int NIFTI_INT64 = 1024;
constexpr int NIFTI_UINT64 = 1280;
constexpr int NIFTI_DOF_ECODE = 20;
constexpr int NIFTI_HEADER_SIZE = 348;
constexpr int NIFTI2_HEADER_SIZE = 540;

struct XD_HEADER;

// One row of the table of volume formats: what a name ends in, the kind it
// tells, how its header is read, where its samples are, and what a write to
// that name produces.
struct volume_format {
  enum layout { one_file, compressed_file, slice_files };
  const char *suffix;  // ".nii", ".nii.gz", "_" (slice series); "" when none matched
  int kind;            // FILE_* code
  int (*read_header)(const char *name, XD_HEADER *header);  // on an initialised header
  layout data;
  int written_as;  // FILE_* format the write commands produce, FILE_UNKNOWN when not written
};

// The one classifier of file names: the row of the table that `name` falls in
// (a row for an unknown extension and one for no extension when none does).
const volume_format &classify_file_name(const char *name);
// Its kind.
int file_kind(const char *name);

struct XD_HEADER : volume_geometry {
  const volume_format *format;  // the row the name was read by
  char file_name[KEP_LINE];
  IPOINT3D dim;
  POINT3D fov;
  int nt;
  int n2d;
  int n3d;
  int n4d;
  int byte_order;
  int file_type;
  int storage_type;
  int data_type;
  int lDOF;
  float voxel_offset;
  float scale_slope;
  float scale_offset;
  float qfac;
  POINT3D quaternion;
  int registration;
  char description[80];  // NIfTI descrip, carried to the files written from the data
};

// The one entry point: decodes the header of the volume file `name`.
// 0 on success, 1 on failure (message printed).
int read_volume_header(const char *name, XD_HEADER *header);
// The same without the report of the NIfTI orientation method: for callers
// that want a file's size and timing, not its data.
int read_volume_header_quietly(const char *name, XD_HEADER *header);

// The format readers, called by read_volume_header on an initialised header.
int read_xdisplay_header(const char *name, XD_HEADER *header);
int read_nifti_header(const char *name, XD_HEADER *header);
int read_freesurfer_header(const char *name, XD_HEADER *header);

// Decodes the text lines of an open ".hdr"; `header_name` is used in messages.
int read_xdisplay_header_stream(FILE *file, const char *header_name, XD_HEADER *header);
// Decodes a NIfTI-1 or NIfTI-2 header held in memory: the 348 (540) bytes
// followed by what the file holds after them (`size` bytes in all). `size`
// must be >= 348, and >= 540 when the first four bytes announce NIfTI-2.
int decode_nifti_header(const unsigned char *bytes, size_t size, const char *header_name, XD_HEADER *header);

// The fields kep uses of a NIfTI-1 or NIfTI-2 header, in the wider form of the two.
struct nifti_fields {
  int64_t dim[8];
  int datatype;
  double pixdim[8];
  double vox_offset, scl_slope, scl_inter;
  int qform_code, sform_code;
  double quatern[3], qoffset[3];
  double srow[3][4];
  int xyzt_units;
  char descrip[80];
};

// The fields of a NIfTI-1 header written in this machine's byte order (as
// kep writes them); false when the bytes are not one.
bool machine_order_nifti1_fields(const unsigned char *bytes, size_t size, nifti_fields *fields);

// One ".hdr" line: 0 decoded, 1 bad line, -1 information keyword (ends the header).
int decode_xdisplay_header_keyword(const char *line, XD_HEADER *header);
// One ".bhdr" line: into the header or into the 16 floats of `corners`.
int decode_freesurfer_header_keyword(const char *line, XD_HEADER *header, float *corners);

// `name` with the text after its last dot replaced (1 after a message when
// it has no dot).
int replace_extension(const char *name, const char *new_extension, char *result);

// fopen that treats a directory as a file that cannot be opened.
FILE *fopen_regular(const char *name, const char *mode);

// True for a gzip-compressed single NIfTI file (base name longer than and
// ending in ".nii.gz").
bool gzipped_nifti_name(const char *name);

// Sequential reading of a data file, plain or gzip-compressed.
class volume_source {
 public:
  volume_source(const char *name, bool compressed);
  ~volume_source();
  volume_source(const volume_source &) = delete;
  volume_source &operator=(const volume_source &) = delete;
  bool is_open() const { return plain_ != nullptr || packed_ != nullptr; }
  size_t read(void *buffer, size_t bytes);
  // Moves forward from the start (SEEK_SET) or from here (SEEK_CUR); false on failure.
  bool seek(long long offset, int whence);
  // The whole of a plain file mapped into memory, or null (compressed, or the
  // mapping failed); `size` receives its length.
  const unsigned char *mapped(long long *size);

 private:
  FILE *plain_ = nullptr;
  void *packed_ = nullptr;
  void *map_ = nullptr;
  size_t map_size_ = 0;
};

int machine_byte_order();
void swap_16(void *p);
void swap_32(void *p);

// Sets the fields read_volume_header starts from.
void initialize_volume_header(const char *name, XD_HEADER *header);
// Fills the derived fields (inverse, field of view, counts) of a decoded
// header; 1 after a message when its sample counts do not fit.
int finish_volume_header(XD_HEADER *header);
