// Writing the disk image of a crash state.
#pragma once

#include <string>
#include <vector>

#include "powerloss/crash_states.h"
#include "powerloss/write_log.h"

// Writes to |out| the disk image |base| (a file or a block device) with the
// |pieces| of the writes of |log|, read from |log_path|, written over it in
// log order; a discard reads back as zeros. |out| is sparse where the result is
// zero. Returns false and says why in |error|.
bool write_state_image(const std::string& log_path, const WriteLog& log,
                       const std::vector<Piece>& pieces, const std::string& base,
                       const std::string& out, std::string* error);
