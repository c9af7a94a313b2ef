#include "test_support.h"

#include "kep-session.h"

std::string capture_stream(FILE *stream, const std::function<void()> &body) {
  fflush(stream);
  int fd = fileno(stream);
  int saved = dup(fd);
  FILE *tmp = tmpfile();
  dup2(fileno(tmp), fd);
  body();
  fflush(stream);
  dup2(saved, fd);
  close(saved);
  std::string text;
  rewind(tmp);
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, tmp)) > 0) text.append(buffer, n);
  fclose(tmp);
  return text;
}

void reset_interpreter() { initialize_global_variables(); }
