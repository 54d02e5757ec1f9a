// What a crash state's /odm must hold, judged against the /odm of a run that
// was not interrupted (the reference).
#pragma once

#include <string>
#include <vector>

// The stamp's promise, in the crash state |odm|: when its version line (its
// last line) is the reference's, every file of |reference| but the stamp is
// in |odm|, whole and equal. Appends to |report| a first line on what the
// stamp says, then one line per broken promise (or entry of |odm| that cannot
// be read); returns false when one is broken.
bool check_stamp(const std::string& odm, const std::string& reference,
                 std::vector<std::string>* report);

// Convergence: |odm| after the next starts is |reference| in every name, file
// type, mode, content and link target. A lost+found/ at the top of |odm| is
// the file system's own and is passed over when |reference| has none. Appends
// one line per difference (the first few; an entry of |odm| that cannot be
// read is one) to |report|; returns false on any.
bool compare_odm(const std::string& odm, const std::string& reference,
                 std::vector<std::string>* report);

// Whether every entry under |root| can be read; appends to |report| one line
// for each that cannot. The reference must be, or neither check means
// anything.
bool read_whole(const std::string& root, std::vector<std::string>* report);
