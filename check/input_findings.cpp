// Findings about what the checker's inputs hold that no honest tree holds:
// entries it could not read, and special files, with what a device start
// does with each.
#include <fnmatch.h>

#include "check/check.h"
#include "check/host_io.h"

namespace {

// Paths a start opens by name, in a vendor tree and in an installed /odm; a
// special file elsewhere is passed over by the listing, which takes regular
// files only.
const std::vector<const char*> kReadInTree = {
    "odm_*/odm/odmver.txt", "odm_default/odm/etc/odmconfig.xml", "odm_*/odm/etc/vintf/manifest.xml",
    "odm_*/odm/etc/permissions/unavailable_features.xml"};
const std::vector<const char*> kReadInstalled = {"odmver.txt", "fbe.ini", "etc/*"};

bool opened_by_name(const CopyNote& note, bool installed) {
  for (const char* pattern : installed ? kReadInstalled : kReadInTree) {
    // Not FNM_PATHNAME: etc/* covers every destination under /odm/etc.
    if (fnmatch(pattern, note.path.c_str(), installed ? 0 : FNM_PATHNAME) == 0) return true;
  }
  return false;
}

// What a device start does with a special file of kind |what| that it opens.
std::string effect(const std::string& what) {
  if (what == "FIFO") return "a start that opens it waits for a writer that never comes: the start hangs";
  if (what == "socket") return "a start cannot open it, as if it were missing";
  if (what == "character device 1:3") return "a start reads it as empty";
  if (what == "character device 1:5" || what == "character device 1:7" ||
      what == "character device 1:8" || what == "character device 1:9") {
    return "a start reads it without end, until the device runs out of memory";
  }
  return "a start reads whatever the device gives";
}

std::string where(const CopyNote& note) { return note.input.empty() ? note.path : note.input + "/" + note.path; }

Location location(const Options& options, const CopyNote& note) {
  return {note.input.empty()                                      ? kInTree
          : !options.installed.empty() && note.input == options.installed ? kInInstalled
                                                                   : kInUpdateFrom,
          note.path, 0};
}

}  // namespace

void add_copy_findings(const Options& options, const CopyNotes& notes, Report* report) {
  for (const CopyNote& note : notes.unreadable) {
    add_finding(report, "unreadable", true, where(note),
                "cannot be read (" + note.what + "): the checker's starts cannot read it either, "
                "so this report need not be what a device does with it",
                "make it readable, or run the checker as a user who may read it",
                {location(options, note)});
  }
  for (const CopyNote& note : notes.special) {
    const bool installed = !options.installed.empty() && note.input == options.installed;
    const bool device = note.what.find("device") != std::string::npos;
    add_finding(report, "special-file", opened_by_name(note, installed), where(note),
                "is a " + note.what + ": " + effect(note.what) +
                    (opened_by_name(note, installed) ? "" : " (here no start opens it by name)") +
                    (device ? "; the checker does not copy device files, so its answers are "
                              "those of a tree without it"
                            : ""),
                "ship a regular file in its place", {location(options, note)});
  }
}
