// What each finding code means, once, for the tools that describe rules
// apart from their results (the SARIF log).
#include "check/check.h"

namespace {

const Rule kRules[] = {
    {"no-source-stamp", true, "The source stamp is missing",
     "The source stamp (odm_default/odm/odmver.txt, or a product's own) is missing: every start "
     "provisions and restarts the device.",
     "Ship the stamp with the version as its last line."},
    {"empty-version-line", true, "The source stamp's last line is empty",
     "The source stamp's last line is empty: every start provisions and restarts the device.",
     "Ship the stamp with the version as its last line."},
    {"no-fallback", true, "The fallback tree is missing or has no manifest",
     "odm_VX41 is missing or has no vintf/manifest.xml: devices whose model has no tree get no "
     "manifest.",
     "Ship the fallback tree whole."},
    {"unreadable", true, "An entry the checker cannot read",
     "An entry of the tree, --installed or --update-from that the checker cannot read: its "
     "starts cannot read it either, so the report need not be what a device does.",
     "Make it readable, or run the checker as a user who may read it."},
    {"special-file", false, "A FIFO, socket or device file",
     "A FIFO, socket or device file in what the checker was given: a FIFO hangs the start that "
     "opens it, a socket reads as missing, a device such as /dev/zero's is read without end. An "
     "error where a start opens it by name. Device files are never copied.",
     "Ship a regular file in its place."},
    {"start-hangs", true, "Device starts that never end",
     "Device starts the checker ran that stopped getting on (asleep, with no CPU time, reads or "
     "writes, for 1 s): they were stopped, and the report goes on.",
     "See the special-file and unreadable findings; tools/run-device runs such a start on a copy "
     "of the tree and shows its log."},
    {"start-fails", true, "Device starts that end by a signal",
     "Device starts the checker ran that ended by a signal (out of memory, say).",
     "Run such a start with tools/run-device on a copy of the tree to see its log."},
    {"empty-config", true, "The configuration does not parse, or is empty",
     "The configuration does not parse (an error) or holds no element (a warning): nothing is "
     "read, and every product text is its own model.",
     "Give it a root element with <model> entries and a <setup_odm>."},
    {"stamp-not-bumped", true, "Files change but the version line does not",
     "With --update-from: a row's files differ between the releases but its version line does "
     "not, so its devices keep the old files.",
     "Raise the last line of the stamp these products read."},
    {"drift", true, "The installed /odm differs from what its tree installs",
     "With --installed: after its starts, the installed /odm differs from what its tree "
     "installs, or lacks a file of it, under the installed stamp: no start mends it.",
     "Reflash /odm, or raise the version line so that the devices provision again."},
    {"no-config", false, "There is no configuration",
     "There is no configuration at all: every product text is its own model.",
     "Ship the configuration in odm_default."},
    {"missing-tree", false, "A model or target without a usable tree",
     "A model or target of the configuration has no tree, or a tree without manifest: its "
     "devices get another tree.",
     "Add the tree or its manifest, or fix the name."},
    {"ambiguous-alias", false, "One alias under several models or targets",
     "One alias stands under several models (or targets): the first by name order wins, not "
     "the first in the file.",
     "Keep each alias under one model or target."},
    {"alias-whitespace", false, "An alias with blanks around its text",
     "An alias has blanks or line breaks around its text, which a product text must then carry "
     "too.",
     "Write the alias without them."},
    {"long-alias", false, "An alias no product text can match",
     "An alias of 92 bytes or more: no product text can match it (a property holds 91 at most).",
     "Shorten the alias."},
    {"long-config-value", false, "A config_value that never matches",
     "A config_value of 92 bytes or more never matches: a property read gives at most 91.",
     "Shorten config_value."},
    {"bad-property-name", false, "A config_name that is no property name",
     "A config_name that is no legal property name always reads as empty.",
     "Name a property (letters, digits, . _ - : @)."},
    {"unreadable-property", false, "A property a vendor service cannot read",
     "A config_name that a vendor service always reads as empty on a device.",
     "Test another property."},
    {"property-needs-rule", false, "A property that needs a policy rule",
     "A config_name that a vendor service reads as empty on a device without a get_prop rule of "
     "its own.",
     "Add the get_prop rule to sepolicy/tarnwick.te."},
    {"passed-over", false, "An element the loader passes over",
     "An element the loader passes over: no name, no config_name or config_value, an alias "
     "without text, an element outside the lists.",
     "Remove it, or give it what it lacks."},
    {"read-as", false, "An element read under another name",
     "An element that the loader reads as a member of a list under another name, because it "
     "follows one.",
     "Rename it, or move it out of the list."},
    {"no-setup-odm", false, "No setup_odm, or none after the first model",
     "No setup_odm, or none after the first model: the model list runs to the last element, or "
     "no property-guarded block is read.",
     "End the model list with <setup_odm/>."},
    {"no-unavailable-features", false, "A tree without unavailable_features.xml",
     "A tree without permissions/unavailable_features.xml: each provisioning empties the "
     "installed copy and logs an error.",
     "Add the file, with no feature in it if none is unavailable."},
    {"tree-config", false, "A configuration among a model's files",
     "An odmconfig.xml among a model's files is installed over the configuration after it was "
     "read: the image name query (and the next run, without a default configuration) reads it.",
     "Keep the configuration in odm_default only."},
    {"sku-stamp", false, "A product's own stamp",
     "An odm_<product>/odm/odmver.txt replaces the default stamp for that product text, or is "
     "empty.",
     "Keep one stamp, in odm_default."},
    {"path-product", false, "A product text that leaves the tree",
     "A product text with / or ..: the paths built from it leave the tree.",
     "Use product texts that are plain names."},
    {"left-behind", false, "A file devices keep that new devices lack",
     "With --update-from or --installed: a file a device keeps that a new device of the tree "
     "lacks, because no start removes it.",
     "Keep it in the tree (empty, if it must say nothing), or reflash /odm."},
    {"restart-without-change", false, "A restart for nothing",
     "With --update-from: the version line changes but nothing in /odm/etc does: every such "
     "device restarts once for nothing.",
     "Keep the version line while nothing changes."},
    {"rollback-keeps", false, "A rollback keeps what the new release installed",
     "With --rollback: a device that took the new release and rolled back to an old one keeps "
     "files (or a model) that devices which never left the old release lack: /odm is not part "
     "of the slots. An error when the platform reads such a file by name at boot.",
     "Ship the old release's files under the names the new one adds (empty, if they must say "
     "nothing), or keep the new files out of the boot path until the new release is proven."},
    {"model-changed", false, "The update moves devices to another tree",
     "With --update-from: the update moves a product text to another tree.",
     "Make sure these devices are to get the other tree."},
};

}  // namespace

const std::vector<Rule>& rules() {
  static const std::vector<Rule> all(std::begin(kRules), std::end(kRules));
  return all;
}
