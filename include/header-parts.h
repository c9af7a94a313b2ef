// Pieces shared by the header readers of the volume formats (not for other callers).
#pragma once

#include <cstdio>

#include "io.h"
#include "text.h"

namespace header_parts {

// Splits a line into its keyword and the text after the keyword's blanks.
const char *split_keyword(const char *line, char *keyword);
bool same(const char *a, const char *b);
// Reports the first missing (or non-positive) dimension.
int check_dimensions(const XD_HEADER *h, const char *header_name);
// Whether decode_nifti_header prints the orientation method it used.
void set_nifti_method_report(bool on);

}  // namespace header_parts
