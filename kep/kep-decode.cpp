// Volume lists and the argument decoders of the commands.
#include "kep-decode.h"

#include <cstdio>
#include <cstring>
#include <deque>
#include <string>

#include "io.h"
#include "kep-stacks.h"
#include "kep-variables.h"
#include "kep.h"
#include "text.h"

namespace {

// The two volume lists of the current command and the two array variables.
struct decoded_state {
  volume_list *main_root = nullptr;
  volume_list *comparison_root = nullptr;
  // Node storage of the two lists; deque keeps node addresses stable.
  std::deque<volume_list> main_nodes;
  std::deque<volume_list> comparison_nodes;
  std::vector<int> slice_order;
  std::vector<float> map_array;
  bool lists_complex = false;  // see set_lists_complex
};

decoded_state decoded;

// Reads an integer the way "%d" does; 0 when the word is not a number.
int read_int(const char *word) {
  int n = 0;
  if (sscanf(word, "%d", &n) != 1) n = 0;
  return n;
}

float read_real(const char *word) {
  float r = 0.0f;
  if (sscanf(word, "%f", &r) != 1) r = 0.0f;
  return r;
}

// Copies the remaining text back to the start of the caller's buffer, which
// later decoders (and the list decoder's rewrite) use.
void shift_text(char *text, const char *rest) {
  if (rest != text) memmove(text, rest, strlen(rest) + 1);
}

bool check_new_name(const char *name) {
  if (strchr(name, '>') != nullptr) {
    kep_text(2, "Do not use > in a stack name.");
    return false;
  }
  return true;
}

}  // namespace

const char *next_word(const char *text, char *word) {
  const char *rest = take_word(text, word, KEP_LINE);
  return rest != nullptr ? skip_blanks(rest) : nullptr;
}

const char *next_file_word(const char *text, char *word, size_t *quoted) {
  const char *p = text;
  while (is_space(*p)) p++;
  if (quoted != nullptr) *quoted = 0;
  if (*p == '\0') {
    word[0] = '\0';
    return nullptr;
  }
  int n = 0;
  bool inside = false;
  while (*p != '\0' && (inside || !is_space(*p))) {
    if (*p == '"') {
      inside = !inside;
      if (!inside && quoted != nullptr) *quoted = static_cast<size_t>(n);
    } else if (inside && (*p == '\n' || *p == '\r')) {
      break;  // a quote left open ends with the line
    } else if (n < KEP_LINE - 1) {
      word[n++] = *p;
    }
    p++;
  }
  word[n] = '\0';
  if (inside && quoted != nullptr) *quoted = static_cast<size_t>(n);
  return skip_blanks(p);
}

volume_list *const &volume_list_root = decoded.main_root;
volume_list *const &comparison_list_root = decoded.comparison_root;

void initialize_volume_list() {
  decoded.main_nodes.clear();
  decoded.comparison_nodes.clear();
  decoded.main_root = nullptr;
  decoded.comparison_root = nullptr;
}

void reset_decode() { decoded = decoded_state{}; }

int count_volume_list(const volume_list *root) {
  int n = 0;
  for (; root; root = root->next) n++;
  return n;
}

int decode_subset(const char *subset, int nt, std::vector<int> &numbers) {
  numbers.clear();
  if (subset == nullptr || subset[0] == '\0') {
    numbers.reserve(nt > 0 ? nt : 0);
    for (int t = 0; t < nt; t++) numbers.push_back(t);
    return 0;
  }
  // The limit is checked once the whole text has been read, so a syntax
  // error later in the text is reported first. Past the limit only the count
  // and the last value are kept: a run needs nothing more, and nothing more
  // is ever shown.
  const char *p = subset;
  bool after_dash = false;
  long count = 0, last = 0;
  while (true) {
    const char *end = p;
    while (*end != '\0' && *end != ',' && *end != '-') end++;
    std::string item(p, end);
    long value = 0;
    char c = item.empty() ? '\0' : item[0];
    if (c == 'n' || c == 'N' || c == 'z' || c == 'Z') {
      value = nt - 1L;
    } else if (c == 'y' || c == 'Y') {
      value = nt - 2L;
    } else if (c == 'x' || c == 'X') {
      value = nt - 3L;
    } else {
      int v = 0;
      if (item.empty() || sscanf(item.c_str(), "%d", &v) != 1) {
        kep_text(2, "A bad syntax was used in the list string.");
        return 1;
      }
      value = v;
    }
    value += io_increment;
    if (after_dash) {
      if (count == 0) {
        kep_text(2, "bad syntax used in the list string.");
        return 1;
      }
      const long a = last;
      count += value >= a ? value - a : a - value;
      if (count <= MAX_NSET) {
        numbers.pop_back();
        if (value >= a)
          for (long v = a; v <= value; v++) numbers.push_back(static_cast<int>(v));
        else
          for (long v = a; v >= value; v--) numbers.push_back(static_cast<int>(v));
      }
    } else {
      count++;
      if (count <= MAX_NSET) numbers.push_back(static_cast<int>(value));
    }
    last = value;
    if (*end == '\0') break;
    after_dash = (*end == '-');
    p = end + 1;
  }
  if (count > MAX_NSET) kep_text(3, "The # of volumes exceeds the program dimension MAX_NSET.");
  for (int n : numbers) {
    if (n < 0 || n >= nt) {
      kep_text(2, "The list contains a number which is out of range.");
      return 1;
    }
  }
  return 0;
}

namespace {

void point_at_volume(volume_list &node) {
  const long offset = static_cast<long>(node.stack->n3d) * node.t;
  if (node.stack->real_only())
    node.SpaceTime.fData = node.stack->reals.get() + offset;
  else
    node.SpaceTime.fcData = node.stack->samples.get() + offset;
}

}  // namespace

void repoint_volume_lists(const data_stack *changed) {
  // Only the changed stack's nodes (others may name a stack since deleted),
  // and only volumes it still has (a new stack may have the address of a
  // deleted one).
  for (std::deque<volume_list> *nodes : {&decoded.main_nodes, &decoded.comparison_nodes})
    for (volume_list &node : *nodes)
      if (node.stack == changed && node.t < changed->nt) point_at_volume(node);
}

bool set_lists_complex(bool on) {
  const bool was = decoded.lists_complex;
  decoded.lists_complex = on;
  return was;
}

int decode_volume_list(int kind, char *text) {
  std::deque<volume_list> &nodes = kind == 0 ? decoded.main_nodes : decoded.comparison_nodes;
  volume_list *&root = kind == 0 ? decoded.main_root : decoded.comparison_root;
  nodes.clear();
  root = nullptr;
  volume_list *tail = nullptr;
  auto append = [&](data_stack *s, int t) {
    if (decoded.lists_complex) make_complex(s);
    volume_list node;
    node.stack = s;
    node.dim = s->dim;
    node.n2d = s->n2d;
    node.n3d = s->n3d;
    node.t = t;
    point_at_volume(node);
    nodes.push_back(node);
    volume_list *added = &nodes.back();
    if (tail)
      tail->next = added;
    else
      root = added;
    tail = added;
  };

  char word[KEP_LINE];
  const char *p = next_word(text, word);
  if (p == nullptr) {
    if (!stack_root) {
      kep_text(1, "No volumes exist in memory.");
      return 1;
    }
    std::string names;
    for (data_stack *s = stack_root.get(); s; s = s->next.get()) {
      for (int t = 0; t < s->nt; t++) append(s, t);
      names += s->name;
      names += ' ';
    }
    snprintf(text, KEP_LINE, "%s", names.c_str());
    return 0;
  }
  std::vector<int> numbers;
  while (p != nullptr) {
    char *gt = strchr(word, '>');
    const char *subset = "";
    if (gt != nullptr) {
      if (gt[1] == '\0') {
        kep_text(2, "No volume list is given following a `>' delimeter.");
        return 1;
      }
      *gt = '\0';
      subset = gt + 1;
    }
    data_stack *s = find_stack(word);
    if (s == nullptr) {
      kep_textf(2, "Stack %s does not exist.", word);
      return 1;
    }
    if (decode_subset(subset, s->nt, numbers)) return 1;
    for (int t : numbers) append(s, t);
    p = next_word(p, word);
  }
  return 0;
}

int decode_comparison_list(char *text) {
  char word[KEP_LINE];
  const char *rest = next_word(text, word);
  if (rest == nullptr) {
    kep_text(2, "At least one argument is mandatory here.");
    return 1;
  }
  if (decode_volume_list(1, word)) return 1;
  shift_text(text, rest);
  return decode_volume_list(0, text);
}

namespace {

// Reads `count` leading numbers; false (after `message`) when a word is missing.
bool read_reals(char *text, float **values, int count, const char *message) {
  char word[KEP_LINE];
  const char *p = text;
  for (int i = 0; i < count; i++) {
    const char *rest = next_word(p, word);
    if (rest == nullptr) {
      kep_text(2, message);
      return false;
    }
    *values[i] = read_real(word);
    p = rest;
  }
  shift_text(text, p);
  return true;
}

bool read_ints(char *text, int **values, int count, const char *message) {
  char word[KEP_LINE];
  const char *p = text;
  for (int i = 0; i < count; i++) {
    const char *rest = next_word(p, word);
    if (rest == nullptr) {
      kep_text(2, message);
      return false;
    }
    *values[i] = read_int(word);
    p = rest;
  }
  shift_text(text, p);
  return true;
}

}  // namespace

int decode_real_and_list(char *text, float *r) {
  float *v[] = {r};
  if (!read_reals(text, v, 1, "A real number is a mandatory argument here.")) return 1;
  return decode_volume_list(0, text);
}

int decode_2reals_and_list(char *text, float *r1, float *r2) {
  float *v[] = {r1, r2};
  if (!read_reals(text, v, 2, "2 real numbers are mandatory arguments here.")) return 1;
  return decode_volume_list(0, text);
}

int decode_3reals_and_list(char *text, float *r1, float *r2, float *r3) {
  float *v[] = {r1, r2, r3};
  if (!read_reals(text, v, 3, "3 real numbers are mandatory arguments here.")) return 1;
  return decode_volume_list(0, text);
}

int decode_euler_and_list(char *text, float *angles) {
  float *v[] = {angles, angles + 1, angles + 2, angles + 3, angles + 4, angles + 5};
  if (!read_reals(text, v, 6, "A real number is a mandatory argument here.")) return 1;
  return decode_volume_list(0, text);
}

int decode_int_and_list(char *text, int *n) {
  int *v[] = {n};
  if (!read_ints(text, v, 1, "An integer is a mandatory argument here.")) return 1;
  return decode_volume_list(0, text);
}

int decode_string_and_list(int kind, char *text, char *name) {
  const char *rest = kind == 1 ? next_file_word(text, name) : next_word(text, name);
  if (rest == nullptr) {
    kep_text(2, kind == 0   ? "A name for the volume to create is mandatory here."
                : kind == 1 ? "A file name root is mandatory here."
                            : "A parameter name is mandatory here.");
    return 1;
  }
  if (kind == 0 && !check_new_name(name)) return 1;
  shift_text(text, rest);
  return decode_volume_list(0, text);
}

int decode_int_string_and_list(int kind, char *text, int *n, char *name) {
  int *v[] = {n};
  if (!read_ints(text, v, 1, "A name for the volume to create is mandatory here.")) return 1;
  return decode_string_and_list(kind, text, name);
}

int decode_2strings_and_list(int kind, char *text, char *word, char *name) {
  const char *rest = next_word(text, word);
  if (rest == nullptr) {
    kep_text(2, "A name for the volume to create is mandatory here.");
    return 1;
  }
  shift_text(text, rest);
  return decode_string_and_list(kind, text, name);
}

int decode_real_string_and_list(char *text, float *r, char *name) {
  float *v[] = {r};
  if (!read_reals(text, v, 1, "A name for the volume to create is mandatory here.")) return 1;
  return decode_string_and_list(0, text, name);
}

int decode_3reals_string_and_list(char *text, float *r1, float *r2, float *r3, char *name) {
  float *v[] = {r1, r2, r3};
  if (!read_reals(text, v, 3, "3 real numbers are mandatory arguments here.")) return 1;
  return decode_string_and_list(0, text, name);
}

int decode_4reals_string_and_list(char *text, float *r1, float *r2, float *r3, float *r4, char *name) {
  float *v[] = {r1, r2, r3, r4};
  if (!read_reals(text, v, 4, "4 real numbers are mandatory arguments here.")) return 1;
  return decode_string_and_list(0, text, name);
}

int decode_2ints_string_and_list(char *text, int *n1, int *n2, char *name) {
  int *v[] = {n1, n2};
  if (!read_ints(text, v, 2, "2 integers are mandatory arguments here.")) return 1;
  return decode_string_and_list(0, text, name);
}

int decode_string_and_comparison_list(char *text, char *name) {
  const char *rest = next_word(text, name);
  if (rest == nullptr) {
    kep_text(2, "A name for the volume to create is mandatory here.");
    return 1;
  }
  if (!check_new_name(name)) return 1;
  shift_text(text, rest);
  return decode_comparison_list(text);
}

int decode_int_and_comparison_list(char *text, int *n) {
  int *v[] = {n};
  if (!read_ints(text, v, 1, "An integer is a mandatory argument here.")) return 1;
  return decode_comparison_list(text);
}

int decode_real_string_and_comparison_list(char *text, float *r, char *name) {
  float *v[] = {r};
  if (!read_reals(text, v, 1, "A name for the volume to create is mandatory here.")) return 1;
  return decode_string_and_comparison_list(text, name);
}

int decode_read_argument(char *text, char *file, int *kind, char *stack, char *subset, int *number) {
  char file_word[KEP_LINE], word[KEP_LINE];
  *kind = -1;
  *number = 0;
  subset[0] = '\0';
  stack[0] = '\0';
  size_t quoted = 0;
  const char *p = next_file_word(text, file_word, &quoted);
  if (p == nullptr) {
    kep_text(2, "No argument to read command.");
    return 1;
  }
  char *gt = strchr(file_word + quoted, '>');
  if (gt != nullptr) {
    *gt = '\0';
    snprintf(subset, KEP_LINE, "%s", gt + 1);
  }
  snprintf(file, KEP_LINE, "%s", file_word);
  const volume_format &format = classify_file_name(file);
  *kind = format.kind;
  const char *q = next_word(p, word);
  if (q != nullptr) {
    snprintf(stack, KEP_LINE, "%s", word);
    if (next_word(q, word) != nullptr) *number = read_int(word);
  } else {
    snprintf(stack, KEP_LINE, "%s", file);
    if (format.data != volume_format::slice_files) {
      char *base = strrchr(stack, '/');
      base = base ? base + 1 : stack;
      if (format.data == volume_format::compressed_file)
        base[strlen(base) - strlen(format.suffix)] = '\0';
      else if (char *dot = strrchr(base, '.'))
        *dot = '\0';
    }
    // A name with blanks could not be given in a volume list.
    for (char *c = stack; *c != '\0'; c++)
      if (*c == ' ' || *c == '\t') *c = '_';
  }
  if (!check_new_name(stack)) return 1;
  return 0;
}

int decode_read_special(char *text, char *root, char *stack) {
  const char *p = next_word(text, root);
  if (p == nullptr) {
    kep_text(0, "This command requires at least one argument.");
    kep_text(2, "read-GE [file name root] <stack name>.");
    return 1;
  }
  if (next_word(p, stack) == nullptr) snprintf(stack, KEP_LINE, "%s", root);
  if (!check_new_name(stack)) return 1;
  return 0;
}

namespace {

// Counts the leading words of `text` that read as `format` numbers.
template <typename T>
std::vector<T> leading_numbers(const char *text, const char *format) {
  std::vector<T> values;
  char word[KEP_LINE];
  const char *p = text;
  while ((p = next_word(p, word)) != nullptr) {
    T v{};
    if (sscanf(word, format, &v) != 1) break;
    values.push_back(v);
  }
  return values;
}

}  // namespace

const std::vector<int> &slice_order = decoded.slice_order;
const std::vector<float> &map_array = decoded.map_array;

void set_slice_order(std::vector<int> order) { decoded.slice_order = std::move(order); }

int read_slice_order(const char *text) {
  decoded.slice_order.clear();
  std::vector<int> values = leading_numbers<int>(text, "%d");
  if (values.size() < 2) {
    kep_text(0, "Fewer than 2 values were successfully read; slice_order = NULL.");
    return 1;
  }
  decoded.slice_order = std::move(values);
  printf("%d values were read for the slice order.\n", static_cast<int>(slice_order.size()));
  return 0;
}

int read_map_array(const char *text) {
  decoded.map_array.clear();
  std::vector<float> values = leading_numbers<float>(text, "%f");
  if (values.size() < 2) {
    kep_text(2, "Fewer than 2 values were successfully read.");
    return 1;
  }
  decoded.map_array = std::move(values);
  printf("%d values were read for the map array.\n", static_cast<int>(map_array.size()));
  return 0;
}
