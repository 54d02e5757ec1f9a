#include "tarnwick/fileutil/fileutil.h"

bool read_line(FILE* file, std::string* line) {
  line->clear();
  // After a read error the stream is finished, even if a retry might succeed.
  if (ferror(file)) return false;
  bool any = false;
  int c;
  while ((c = getc_unlocked(file)) != EOF) {
    any = true;
    if (c == '\n') return true;
    line->push_back(static_cast<char>(c));
  }
  return any;
}
