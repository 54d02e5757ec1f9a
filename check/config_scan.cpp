// The configuration document walked the way the loader walks it (the loader's
// own list functions), reporting what the loader passes over or reads under
// another name, and the property tests that cannot work on a device.
#include <string.h>
#include <tinyxml2.h>

#include "check/check.h"
#include "tarnwick/config/config_document.h"
#include "tarnwick/platform/host_cutils.h"

using tinyxml2::XMLElement;

namespace {

// Properties that a vendor service reads as empty on a device: never, or
// until its policy has a get_prop rule. Names ending in '.' are prefixes; the
// first entry that fits wins.
const struct {
  const char* name;
  const char* type;
  bool never;
} kUnreadable[] = {
    {"ro.boot.serialno", "serialno_prop", true},
    {"ro.boot.btmacaddr", "bluetooth_prop", true},
    {"ro.boot.bootreason", "bootloader_boot_reason_prop", true},
    {"ro.boot.wificountrycode", "wifi_config_prop", true},
    {"ro.boot.vendor.overlay.theme", "exported_overlay_prop", false},
    {"ro.boot.vendor.overlay.", "overlay_prop", true},
    {"ro.boot.hypervisor.", "hypervisor_prop", false},
    {"ro.camerax.extensions.enabled", "camera2_extensions_prop", false},
    {"ro.vendor.build.security_patch", "vendor_security_patch_level_prop", false},
};

struct Scan {
  std::string label;
  Report* report;
  std::map<std::string, std::set<std::string>> tests;
};

std::string where(const Scan& scan, const XMLElement* element) {
  return scan.label + ":" + std::to_string(element->GetLineNum()) + " <" + element->Name() + ">";
}

// The location of |element| in the configuration.
std::vector<Location> at(const Scan& scan, const XMLElement* element) {
  Location here = scan.report->config_file;
  here.line = element->GetLineNum();
  return {here};
}

// Notes the line of |element|, which holds |kind| |text|.
void note_line(Scan* scan, const char* kind, const char* text, const XMLElement* element) {
  scan->report->config_lines[std::string(kind) + '\0' + text].push_back(element->GetLineNum());
}

void passed_over(Scan* scan, const XMLElement* element, const std::string& why) {
  add_finding(scan->report, "passed-over", false, where(*scan, element),
              std::string("<") + element->Name() + "> " + why + ": the loader passes over it",
              "remove it, or give it what it lacks", at(*scan, element));
}

// An element of another name that a list takes in as one of its own.
void read_as(Scan* scan, const XMLElement* element, const char* own_name) {
  if (strcmp(element->Name(), own_name) == 0) return;
  add_finding(scan->report, "read-as", false, where(*scan, element),
              std::string("<") + element->Name() + "> is read as a <" + own_name +
                  "> because it follows one in the same list",
              std::string("rename it <") + own_name + ">, or move it out of the list", at(*scan, element));
}

// The children of |parent| before |first|, which its list does not reach.
void before_list(Scan* scan, const XMLElement* parent, const XMLElement* first, const char* name) {
  for (const XMLElement* child = parent->FirstChildElement(); child != first;
       child = child->NextSiblingElement()) {
    passed_over(scan, child, std::string("stands before the first <") + name + "> of its parent");
  }
}

// |kind| is the owner's: "model" or "target".
void scan_aliases(Scan* scan, const XMLElement* owner, const char* kind) {
  const XMLElement* first = first_alias(owner);
  before_list(scan, owner, first, "alias");
  for (const XMLElement* alias = first; alias != nullptr; alias = alias->NextSiblingElement()) {
    if (text_of(alias) == nullptr) {
      passed_over(scan, alias, "has no text (empty, blank, or starting with a comment or element)");
    } else {
      read_as(scan, alias, "alias");
      note_line(scan, kind, text_of(alias), alias);
    }
  }
}

void check_test(Scan* scan, const XMLElement* block, const char* name, const char* value) {
  const std::string subject = where(*scan, block);
  if (strlen(value) >= PROP_VALUE_MAX) {
    add_finding(scan->report, "long-config-value", false, subject,
                "config_value of " + std::to_string(strlen(value)) +
                    " bytes never matches: a property read gives at most 91",
                "shorten config_value", at(*scan, block));
  }
  if (scan->tests.count(name) != 0) return;  // the name's own findings are given once
  if (!tarnwick_host::is_legal_property_name(name)) {
    add_finding(scan->report, "bad-property-name", false, subject,
                shown(name) + " is not a legal property name: it always reads as empty",
                "name a property (letters, digits, . _ - : @)", at(*scan, block));
    return;
  }
  bool never;
  if (const char* type = unreadable_type(name, &never)) {
    add_finding(scan->report, never ? "unreadable-property" : "property-needs-rule", false,
                subject,
                std::string(name) + " (" + type + ") reads as empty in a vendor service on a device" +
                    (never ? "" : " without a rule of its own"),
                never ? "test another property: this one matches only config_value=\"\""
                      : std::string("add get_prop(tarnwick, ") + type + ") to sepolicy/tarnwick.te",
                at(*scan, block));
  }
}

void scan_setup(Scan* scan, const XMLElement* setup) {
  const XMLElement* first = first_block(setup);
  before_list(scan, setup, first, "prop_value");
  for (const XMLElement* block = first; block != nullptr; block = block->NextSiblingElement()) {
    const char* name = block->Attribute("config_name");
    const char* value = block->Attribute("config_value");
    if (name == nullptr || value == nullptr) {
      passed_over(scan, block, name == nullptr ? "has no config_name" : "has no config_value");
      continue;
    }
    read_as(scan, block, "prop_value");
    check_test(scan, block, name, value);
    scan->tests[name].insert(value);
    const XMLElement* first_of_block = first_target(block);
    before_list(scan, block, first_of_block, "target");
    for (const XMLElement* target = first_of_block; target != nullptr;
         target = target->NextSiblingElement()) {
      if (target->Attribute("name") == nullptr) {
        passed_over(scan, target, "has no name");
        continue;
      }
      read_as(scan, target, "target");
      note_line(scan, "target", target->Attribute("name"), target);
      scan_aliases(scan, target, "target alias");
    }
  }
}

}  // namespace

const char* unreadable_type(const std::string& name, bool* never) {
  for (const auto& entry : kUnreadable) {
    const std::string known = entry.name;
    const bool prefix = known.back() == '.';
    if (prefix ? name.compare(0, known.size(), known) == 0 : name == known) {
      *never = entry.never;
      return entry.type;
    }
  }
  return nullptr;
}

std::map<std::string, std::set<std::string>> scan_config(const std::string& label,
                                                         Report* report) {
  Scan scan{label, report, {}};
  Location whole = report->config_file;
  tinyxml2::XMLDocument document(true /* processEntities */);
  load_config(&document);
  const XMLElement* root = document.FirstChildElement();
  if (root == nullptr) {
    const bool broken = document.Error();
    if (broken) whole.line = document.ErrorLineNum();
    add_finding(report, "empty-config", broken, label,
                broken ? std::string("does not parse (") + document.ErrorStr() +
                             "): nothing is read, every product text is its own model"
                       : "holds no element: nothing is read, every product text is its own model",
                "give it a root element with <model> entries and a <setup_odm>", {whole});
    return {};
  }
  for (const XMLElement* extra = root->NextSiblingElement(); extra != nullptr;
       extra = extra->NextSiblingElement()) {
    passed_over(&scan, extra, "follows the root element");
  }

  // The model list as the loader reads it: from the first <model> to the
  // <setup_odm> that closes it.
  const XMLElement* first = first_model(root);
  const XMLElement* closing = nullptr;
  std::set<const XMLElement*> models;
  for (const XMLElement* model = first; model != nullptr; model = next_model(model)) {
    if (closes_model_list(model)) {
      closing = model;
      break;
    }
    models.insert(model);
  }
  const XMLElement* setup = setup_section(root);
  if (first != nullptr && closing == nullptr) {
    add_finding(report, "no-setup-odm", false, where(scan, first),
                "no <setup_odm> follows the first <model>: the model list runs to the last element",
                "end the model list with <setup_odm>", at(scan, first));
  } else if (setup == nullptr) {
    add_finding(report, "no-setup-odm", false, label,
                "no <setup_odm>: no property-guarded block is read", "add <setup_odm/>", {whole});
  }

  enum { kBefore, kInList, kAfter } place = kBefore;
  for (const XMLElement* child = root->FirstChildElement(); child != nullptr;
       child = child->NextSiblingElement()) {
    if (child == first) place = kInList;
    if (models.count(child) != 0 && child->Attribute("name") != nullptr) {
      read_as(&scan, child, "model");
      note_line(&scan, "model", child->Attribute("name"), child);
      scan_aliases(&scan, child, "model alias");
    } else if (child == setup) {
      scan_setup(&scan, child);
    } else if (closes_model_list(child)) {
      passed_over(&scan, child, "is not the first <setup_odm>, the only one read");
    } else if (place == kInList) {
      passed_over(&scan, child, "has no name");
    } else {
      passed_over(&scan, child,
                  first == nullptr      ? "is neither <model> nor <setup_odm>"
                  : place == kBefore    ? "stands before the first <model>"
                                        : "follows the <setup_odm> that ends the model list");
    }
    if (child == closing) place = kAfter;
  }
  return scan.tests;
}

std::vector<Location> config_locations(const Report& report, const std::string& kind,
                                       const std::string& text) {
  std::vector<Location> out;
  const auto it = report.config_lines.find(kind + '\0' + text);
  for (int line : it == report.config_lines.end() ? std::vector<int>() : it->second) {
    out.push_back(report.config_file);
    out.back().line = line;
  }
  return out;
}
