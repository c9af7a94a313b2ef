// The header decoders: name classifiers, ".hdr" keywords, NIfTI-1 bytes.
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "io.h"
#include "numerics.h"
#include "test_support.h"

namespace {

XD_HEADER fresh(const char *name = "test") {
  XD_HEADER h;
  initialize_volume_header(name, &h);
  return h;
}

// One classifier for every use of a name: the kind `read` acts on, the header
// reader, where the samples are, and what a write to the name produces.
TEST(IoNames, OneClassifierForReadingAndWriting) {
  struct Case {
    const char *name;
    int kind;
    volume_format::layout data;
    int written_as;
    const char *suffix;
  } cases[] = {
      {"a.com", FILE_COMMANDS, volume_format::one_file, FILE_UNKNOWN, ".com"},
      {"a.bshort", FILE_BSHORT, volume_format::one_file, FILE_BSHORT, ".bshort"},
      {"a.bfloat", FILE_BFLOAT, volume_format::one_file, FILE_BFLOAT, ".bfloat"},
      {"a.blong", FILE_BLONG, volume_format::one_file, FILE_UNKNOWN, ".blong"},
      {"a.ushort", FILE_USHORT, volume_format::one_file, FILE_USHORT, ".ushort"},
      {"dir.x/a.nii", FILE_NII, volume_format::one_file, FILE_NII, ".nii"},
      {"a.nii.gz", FILE_NII, volume_format::compressed_file, FILE_NII, ".nii.gz"},
      {"d/.nii.gz", FILE_UNKNOWN, volume_format::one_file, FILE_UNKNOWN, ""},
      {"a.img", FILE_IMG, volume_format::one_file, FILE_IMG, ".img"},
      {"slices_", FILE_FREESURFER, volume_format::slice_files, FILE_UNKNOWN, "_"},
      {"a.bfloat_", FILE_FREESURFER, volume_format::slice_files, FILE_UNKNOWN, "_"},
      {"a.ovl", FILE_OVERLAY, volume_format::one_file, FILE_UNKNOWN, ".ovl"},
      {"a.hdr", FILE_UNKNOWN, volume_format::one_file, FILE_UNKNOWN, ""},
      {"plain", FILE_UNKNOWN, volume_format::one_file, FILE_UNKNOWN, ""},
      {"dir.v2/plain", FILE_UNKNOWN, volume_format::one_file, FILE_UNKNOWN, ""},
  };
  for (const Case &c : cases) {
    const volume_format &f = classify_file_name(c.name);
    EXPECT_EQ(f.kind, c.kind) << c.name;
    EXPECT_EQ(file_kind(c.name), c.kind) << c.name;
    EXPECT_EQ(f.data, c.data) << c.name;
    EXPECT_EQ(f.written_as, c.written_as) << c.name;
    EXPECT_STREQ(f.suffix, c.suffix) << c.name;
    EXPECT_NE(f.read_header, nullptr) << c.name;
  }
  // The two rows no suffix selects read their ".hdr" differently.
  EXPECT_NE(classify_file_name("a.hdr").read_header, classify_file_name("plain").read_header);
}

TEST(IoNames, ReplaceExtensionKeepsTheStem) {
  char result[KEP_LINE];
  ASSERT_EQ(replace_extension("d.v2/run.01.bfloat", "hdr", result), 0);
  EXPECT_STREQ(result, "d.v2/run.01.hdr");
  ASSERT_EQ(replace_extension("a.bfloat\n", "hdr", result), 0);
  EXPECT_STREQ(result, "a.hdr");
  std::string out = capture_stdout([&] { EXPECT_EQ(replace_extension("run", "hdr", result), 1); });
  EXPECT_EQ(out, "The file name has no extension!\n");
}

TEST(IoNames, ByteOrderAndSwaps) {
  const uint32_t probe = 0x01020304;
  unsigned char first;
  memcpy(&first, &probe, 1);
  EXPECT_EQ(machine_byte_order(), first == 4 ? 1 : 0);
  unsigned char two[2] = {1, 2}, four[4] = {1, 2, 3, 4};
  swap_16(two);
  swap_32(four);
  EXPECT_EQ(two[0], 2);
  EXPECT_EQ(two[1], 1);
  EXPECT_EQ(std::vector<int>(four, four + 4), (std::vector<int>{4, 3, 2, 1}));
}

TEST(IoXdisplayKeywords, ValuesReachTheirFields) {
  XD_HEADER h = fresh();
  EXPECT_EQ(decode_xdisplay_header_keyword("matrix 64 32 16 200\n", &h), 0);
  EXPECT_EQ(h.dim.x, 64);
  EXPECT_EQ(h.dim.z, 16);
  EXPECT_EQ(h.nt, 200);
  EXPECT_EQ(decode_xdisplay_header_keyword("matrix 8 4 2", &h), 0);
  EXPECT_EQ(h.nt, 200);  // three values leave t
  EXPECT_EQ(decode_xdisplay_header_keyword("  t\t12abc", &h), 0);
  EXPECT_EQ(h.nt, 12);
  h.resolution_t = 9;
  EXPECT_EQ(decode_xdisplay_header_keyword("resolution 2 2 3", &h), 0);
  EXPECT_EQ(h.resolution_t, 0.0f);
  EXPECT_EQ(decode_xdisplay_header_keyword("resolution 2 2 3 1.5", &h), 0);
  EXPECT_EQ(h.resolution_t, 1.5f);
  EXPECT_EQ(decode_xdisplay_header_keyword("direction -1 1 1", &h), 0);
  EXPECT_EQ(h.direction.x, -1.0f);
  EXPECT_EQ(decode_xdisplay_header_keyword("data-type real-imaginary", &h), 0);
  EXPECT_EQ(h.data_type, 1);
  EXPECT_EQ(decode_xdisplay_header_keyword("data-type magnitude-phase", &h), 0);
  EXPECT_EQ(h.data_type, 2);
  EXPECT_EQ(decode_xdisplay_header_keyword("storage-type unsigned-short", &h), 0);
  EXPECT_EQ(h.storage_type, 4);
  EXPECT_EQ(decode_xdisplay_header_keyword("registration paxinos-rat", &h), 0);
  EXPECT_EQ(h.registration, -1);
  EXPECT_EQ(decode_xdisplay_header_keyword("degrees-of-freedom 27", &h), 0);
  EXPECT_EQ(h.lDOF, 27);
  EXPECT_EQ(decode_xdisplay_header_keyword("byte-order 0", &h), 0);
  EXPECT_EQ(h.byte_order, 0);
  for (const char *info : {"info", "info: x 3", "information", "information:"})
    EXPECT_EQ(decode_xdisplay_header_keyword(info, &h), -1) << info;
}

TEST(IoXdisplayKeywords, BadLinesFail) {
  XD_HEADER h = fresh();
  std::string out = capture_stdout([&] {
    for (const char *line : {"x", "x abc", "matrix 1 2", "resolution 1 2", "origin 1 2", "Info", "X 3",
                             "colour 2", "direction 1 -1 0.5", "storage-type"})
      EXPECT_EQ(decode_xdisplay_header_keyword(line, &h), 1) << line;
  });
  EXPECT_NE(out.find("Error: allowed values for direction (1,-1,0.5) are 1 and -1.\n"), std::string::npos);
  h.data_type = 1;
  capture_stdout([&] { EXPECT_EQ(decode_xdisplay_header_keyword("data-type polar", &h), 1); });
  EXPECT_EQ(h.data_type, 0);
}

int read_text_header(const char *text, XD_HEADER *h, std::string *out) {
  FILE *f = fmemopen(const_cast<char *>(text), strlen(text), "r");
  int result = 0;
  *out = capture_stdout([&] { result = read_xdisplay_header_stream(f, "h.hdr", h); });
  fclose(f);
  return result;
}

TEST(IoXdisplayStream, OldFirstLineAndLineNumbers) {
  XD_HEADER h = fresh();
  std::string out;
  EXPECT_EQ(read_text_header("\n64 64 16 1\nx 4\ny 3\nz 2\nt 5\norigin 1 2 3\n", &h, &out), 0);
  EXPECT_EQ(h.dim.x, 4);
  EXPECT_EQ(h.nt, 5);
  EXPECT_EQ(h.ijk_to_xyz.m[0][3], 1.0f);
  h = fresh();
  EXPECT_EQ(read_text_header("x 4\n\n# only a comment\ny 3\nz 2\nbogus\n", &h, &out), 1);
  EXPECT_EQ(out, "Error reading line 3 of file 'h.hdr'\n");
  h = fresh();
  EXPECT_EQ(read_text_header("x 4\ny 3\ninfo\nz 2\nt 1\n", &h, &out), 1);
  EXPECT_EQ(out, "Error: Value for z dimension not found in header file 'h.hdr'\n");
  h = fresh();
  EXPECT_EQ(read_text_header("64 64\nx 4\n", &h, &out), 1);
  EXPECT_EQ(out, "Error reading the 1st line of the xds header file 'h.hdr'.\n");
}

// A NIfTI-1 header in the machine's order, with an optional extension.
std::vector<unsigned char> nifti(std::vector<short> dims, short datatype = 16, int extension_code = 0,
                                 int dof = 0) {
  nifti_1_header n;
  memset(&n, 0, sizeof n);
  n.sizeof_hdr = 348;
  for (size_t i = 0; i < dims.size(); i++) n.dim[i] = dims[i];
  n.datatype = datatype;
  n.pixdim[0] = 1;
  n.pixdim[1] = 2;
  n.pixdim[2] = 3;
  n.pixdim[3] = 4;
  n.pixdim[4] = 2.5f;
  n.vox_offset = 352;
  n.qoffset_x = 5;
  n.srow_x[0] = -2;
  n.srow_x[3] = 7;
  n.srow_y[1] = 3;
  n.srow_y[3] = 8;
  n.srow_z[2] = 4;
  n.srow_z[3] = 9;
  memcpy(n.magic, "n+1", 4);
  std::vector<unsigned char> bytes(sizeof n + 4 + (extension_code ? 16 : 0), 0);
  memcpy(bytes.data(), &n, sizeof n);
  if (extension_code) {
    bytes[sizeof n] = 1;
    const int32_t ext[4] = {16, extension_code, dof, 0};
    memcpy(bytes.data() + sizeof n + 4, ext, sizeof ext);
  }
  return bytes;
}

nifti_1_header *as_header(std::vector<unsigned char> &bytes) {
  return reinterpret_cast<nifti_1_header *>(bytes.data());
}

int decode(std::vector<unsigned char> &bytes, XD_HEADER *h, std::string *out, size_t size = 0) {
  int result = 0;
  *out = capture_stdout(
      [&] { result = decode_nifti_header(bytes.data(), size ? size : bytes.size(), "n.nii", h); });
  return result;
}

TEST(IoNifti, FieldsAndMethods) {
  auto bytes = nifti({4, 6, 5, 4, 3});
  XD_HEADER h = fresh("n.nii");
  std::string out;
  ASSERT_EQ(decode(bytes, &h, &out), 0);
  EXPECT_EQ(out, "The NIFTI header for file n.nii uses Method 1: the old analyze format\n");
  EXPECT_EQ(h.dim.x, 6);
  EXPECT_EQ(h.nt, 3);
  EXPECT_EQ(h.resolution.z, 4.0f);
  EXPECT_EQ(h.resolution_t, 2.5f);
  EXPECT_EQ(h.storage_type, 2);
  EXPECT_EQ(h.origin.x, 0.0f);  // Method 1 ignores qoffset and srow
  EXPECT_EQ(h.ijk_to_xyz.m[1][1], 3.0f);
  EXPECT_EQ(h.byte_order, machine_byte_order());

  as_header(bytes)->qform_code = 1;
  h = fresh("n.nii");
  ASSERT_EQ(decode(bytes, &h, &out), 0);
  EXPECT_EQ(out, "The NIFTI header for file n.nii uses Method 2: quaternion rotations\n");
  EXPECT_EQ(h.origin.x, 5.0f);
  EXPECT_EQ(h.direction.x, 1.0f);

  as_header(bytes)->sform_code = 2;
  h = fresh("n.nii");
  ASSERT_EQ(decode(bytes, &h, &out), 0);
  EXPECT_EQ(out, "The NIFTI header for file n.nii uses Method 3: affine transformation of voxel indices\n");
  EXPECT_EQ(h.origin.x, 7.0f);
  EXPECT_EQ(h.origin.z, 9.0f);
  EXPECT_EQ(h.direction.x, -1.0f);
  EXPECT_EQ(h.off_diagonal, 0);
  as_header(bytes)->srow_x[1] = 0.5f;
  h = fresh("n.nii");
  ASSERT_EQ(decode(bytes, &h, &out), 0);
  EXPECT_EQ(h.off_diagonal, 1);
}

TEST(IoNifti, StorageTypes) {
  struct Case {
    short datatype;
    int storage, data_type;
  } cases[] = {{2, 5, 0},  {4, 1, 0},   {8, 3, 0},   {16, 2, 0},   {32, 2, 1},   {512, 4, 0},
               {64, 6, 0}, {256, 7, 0}, {768, 8, 0}, {1024, 9, 0}, {1280, 10, 0}};
  for (const Case &c : cases) {
    auto bytes = nifti({3, 2, 2, 2}, c.datatype);
    XD_HEADER h = fresh();
    std::string out;
    ASSERT_EQ(decode(bytes, &h, &out), 0) << c.datatype;
    EXPECT_EQ(h.storage_type, c.storage);
    EXPECT_EQ(h.data_type, c.data_type);
    EXPECT_EQ(h.nt, 1);
  }
  auto bytes = nifti({3, 2, 2, 2}, 128);  // RGB triples
  XD_HEADER h = fresh();
  std::string out;
  EXPECT_EQ(decode(bytes, &h, &out), 1);
  EXPECT_EQ(out, "Error: the Nifti data storage type 128 is not supported.\n");
}

TEST(IoNifti, ScalingSlopeThatIsNotFiniteMeansNone) {
  const float slopes[] = {2.0f, NAN, INFINITY, 0.0f};
  const float expected[] = {2.0f, 0.0f, 0.0f, 0.0f};
  for (int i = 0; i < 4; i++) {
    auto bytes = nifti({3, 2, 2, 2});
    as_header(bytes)->scl_slope = slopes[i];
    as_header(bytes)->scl_inter = 10;
    XD_HEADER h = fresh();
    std::string out;
    ASSERT_EQ(decode(bytes, &h, &out), 0);
    EXPECT_EQ(h.scale_slope, expected[i]) << i;
    EXPECT_EQ(h.scale_offset, 10.0f);
  }
}

TEST(IoNifti, SwappedHeaderIsDetectedFromDim0) {
  auto bytes = nifti({4, 6, 5, 4, 3}, 4);
  nifti_1_header *n = as_header(bytes);
  n->qform_code = 1;
  n->sform_code = 1;
  // swap every field the decoder reads
  for (short &d : n->dim) swap_16(&d);
  swap_16(&n->datatype);
  swap_16(&n->qform_code);
  swap_16(&n->sform_code);
  for (float &p : n->pixdim) swap_32(&p);
  swap_32(&n->vox_offset);
  for (int i = 0; i < 4; i++) {
    swap_32(&n->srow_x[i]);
    swap_32(&n->srow_y[i]);
    swap_32(&n->srow_z[i]);
  }
  XD_HEADER h = fresh();
  std::string out;
  ASSERT_EQ(decode(bytes, &h, &out), 0) << out;
  EXPECT_EQ(h.dim.y, 5);
  EXPECT_EQ(h.nt, 3);
  EXPECT_EQ(h.storage_type, 1);
  EXPECT_EQ(h.resolution.y, 3.0f);
  EXPECT_EQ(h.origin.y, 8.0f);
  // the data of such a file are in the other order
  EXPECT_EQ(h.byte_order, 1 - machine_byte_order());
}

TEST(IoNifti, DimensionalityAndDimensions) {
  auto five = nifti({5, 2, 2, 2, 1, 2});
  XD_HEADER h = fresh();
  std::string out;
  EXPECT_EQ(decode(five, &h, &out), 1);
  EXPECT_EQ(out, "Error: kep does not currently handle data of dimensionality (5) > 4.\n");
  const char *axes = "xyzt";
  std::vector<std::vector<short>> bad = {
      {4, 0, 2, 2, 1}, {4, 2, -1, 2, 1}, {4, 2, 2, 0, 1}, {4, 2, 2, 2, -5}};
  for (int i = 0; i < 4; i++) {
    auto bytes = nifti(bad[i]);
    h = fresh();
    EXPECT_EQ(decode(bytes, &h, &out), 1);
    EXPECT_EQ(out,
              std::string("Error: Value for ") + axes[i] + " dimension not found in header file 'n.nii'\n");
  }
}

TEST(IoNifti, DegreesOfFreedomExtension) {
  auto bytes = nifti({3, 2, 2, 2}, 16, 20, 27);
  XD_HEADER h = fresh();
  std::string out;
  ASSERT_EQ(decode(bytes, &h, &out), 0);
  EXPECT_EQ(h.lDOF, 27);
  // another code is not degrees of freedom
  auto other = nifti({3, 2, 2, 2}, 16, 6, 27);
  h = fresh();
  ASSERT_EQ(decode(other, &h, &out), 0);
  EXPECT_EQ(h.lDOF, 0);
  // a pair header of exactly 348 bytes has no extension
  h = fresh();
  ASSERT_EQ(decode(bytes, &h, &out, 348), 0);
  EXPECT_EQ(h.lDOF, 0);
  h = fresh();
  EXPECT_EQ(decode(bytes, &h, &out, 352 + 4), 1);
  EXPECT_EQ(out, "Error: A NIFTI1 extension was indicated, but the ecode is missing.\n");
  h = fresh();
  EXPECT_EQ(decode(bytes, &h, &out, 352 + 8), 1);
  EXPECT_EQ(out, "Error read degrees of freedom.\n");
}

TEST(IoFreesurfer, Keywords) {
  XD_HEADER h = fresh();
  float corners[16] = {};
  EXPECT_EQ(decode_freesurfer_header_keyword("cols: 64\n", &h, corners), 0);
  EXPECT_EQ(decode_freesurfer_header_keyword("n_time_points: 12", &h, corners), 0);
  EXPECT_EQ(decode_freesurfer_header_keyword("slice_thick: 3.5", &h, corners), 0);
  EXPECT_EQ(decode_freesurfer_header_keyword("bottom_right_a: -7.25", &h, corners), 0);
  EXPECT_EQ(decode_freesurfer_header_keyword("flip_angle: 1.5", &h, corners), 0);
  EXPECT_EQ(h.dim.x, 64);
  EXPECT_EQ(h.nt, 12);
  EXPECT_EQ(h.resolution.z, 3.5f);
  EXPECT_EQ(corners[7], -7.25f);
  EXPECT_EQ(corners[15], 1.5f);
  EXPECT_EQ(decode_freesurfer_header_keyword("cols 64", &h, corners), 1);
  EXPECT_EQ(decode_freesurfer_header_keyword("rows: many", &h, corners), 1);
}

TEST(IoHeader, SingularGeometryIsReadWithAWarning) {
  XD_HEADER h = fresh("z.bfloat");
  h.dim = {2, 2, 2};
  h.nt = 1;
  h.resolution = {0.0f, 1.0f, 1.0f};
  h.ijk_to_xyz = scale_and_shift_to_mat44(0, 1, 1, 0, 0, 0, 1, 1, 1);
  std::string out = capture_stdout([&] { EXPECT_EQ(finish_volume_header(&h), 0); });
  EXPECT_EQ(out, "Warning: the voxel-to-world matrix of file z.bfloat cannot be inverted.\n");
  EXPECT_EQ(h.n4d, 8);
  // tiny but non-zero entries: the general inverter finds a zero pivot
  const float rows[3][4] = {{1.69271187e-36f, 1, 1.5f, 0},
                            {5.83155401e-39f, 5.85451288e-39f, 0, 0},
                            {5.87747175e-39f, 0, 0, 5.90043063e-39f}};
  h.ijk_to_xyz = general_affine_to_mat44(rows[0], rows[1], rows[2]);
  out = capture_stdout([&] { EXPECT_EQ(finish_volume_header(&h), 0); });
  EXPECT_EQ(out, "Warning: the voxel-to-world matrix of file z.bfloat cannot be inverted.\n");
  h.ijk_to_xyz.m[0][3] = NAN;
  out = capture_stdout([&] { EXPECT_EQ(finish_volume_header(&h), 0); });
  EXPECT_EQ(out, "Warning: the voxel-to-world matrix of file z.bfloat cannot be inverted.\n");
  EXPECT_EQ(h.xyz_to_ijk.m[0][3], 0.0f);
  h.resolution = {2.0f, 1.0f, 1.0f};
  h.ijk_to_xyz = scale_and_shift_to_mat44(2, 1, 1, 4, 0, 0, 1, 1, 1);
  out = capture_stdout([&] { EXPECT_EQ(finish_volume_header(&h), 0); });
  EXPECT_EQ(out, "");
  EXPECT_FLOAT_EQ(h.xyz_to_ijk.m[0][0], 0.5f);
  EXPECT_FLOAT_EQ(h.xyz_to_ijk.m[0][3], -2.0f);
  EXPECT_FLOAT_EQ(h.fov.x, 4.0f);
}

}  // namespace
