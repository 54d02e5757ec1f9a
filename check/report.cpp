// The report: a text for a person, or one JSON document for a build's CI.
#include <stdio.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "check/check.h"

namespace {

const size_t kWidth = 100;

// Prints |label| and |text|, the text wrapped after ", " to the report's width
// and each further line indented under the first.
void wrapped(const std::string& indent, const std::string& label, const std::string& raw) {
  const std::string text = printable(raw);
  std::string lead = indent + label;
  const size_t room = kWidth > lead.size() + 20 ? kWidth - lead.size() : 20;
  size_t start = 0;
  do {
    size_t end = text.size();
    if (end - start > room) {
      size_t cut = text.rfind(", ", start + room - 1);
      if (cut == std::string::npos || cut < start) cut = text.find(", ", start);
      if (cut != std::string::npos) end = cut + 1;
    }
    printf("%s%s\n", lead.c_str(), text.substr(start, end - start).c_str());
    start = end < text.size() ? end + 1 : end;
    lead.assign(lead.size(), ' ');
  } while (start < text.size());
}

std::string products_of(const Row& row) {
  std::vector<std::string> texts;
  for (const auto& p : row.products) texts.push_back(shown(p));
  return comma_list(texts);
}

size_t count(const Report& report, bool errors) {
  return std::count_if(report.findings.begin(), report.findings.end(),
                       [&](const Finding& f) { return f.error == errors; });
}

// Which course of a row a table shows.
enum class Courses { kUpdate, kRollback, kInstalled };

// The courses of every row of one kind (of old release |k|): a table of their
// outcomes, each row followed by what its starts change and how it then
// differs from the device it is held against. The tree is where an updated
// or rolled-back device's files come from before and after its starts, and
// for an installed /odm a new device's; judged rows of an installed /odm are
// marked with "*".
void print_courses(const Report& report, Courses kind, size_t k) {
  const auto course_of = [&](const Row& row) -> const Course& {
    return kind == Courses::kUpdate ? row.update[k] : kind == Courses::kRollback ? row.rollback[k] : *row.installed;
  };
  const bool moves = kind != Courses::kInstalled;
  std::vector<std::vector<std::string>> cells;
  for (const Row& row : report.rows) {
    const Course& c = course_of(row);
    const std::string after = moves ? c.model_after : c.new_model;
    std::string tree = "odm_" + after;
    if (moves && c.model_before != after) tree = "odm_" + c.model_before + " > " + tree;
    cells.push_back({(!moves && row.installed_judged ? "* " : "") + products_of(row), row.when,
                     printable(tree),
                     c.provisions ? "provisions: " + shown(c.line_before) + " > " + shown(c.line_after)
                                  : "current: " + shown(c.line_after)});
  }
  std::vector<size_t> width(4);
  for (const auto& line : cells) {
    for (size_t i = 0; i < 3; ++i) width[i] = std::max(width[i], line[i].size());
  }
  for (size_t r = 0; r < report.rows.size(); ++r) {
    std::string text;
    for (size_t i = 0; i < 4; ++i) text += "  " + cells[r][i] + std::string(width[i] - std::min(width[i], cells[r][i].size()), ' ');
    printf("%s\n", text.substr(0, text.find_last_not_of(' ') + 1).c_str());
    const Course& c = course_of(report.rows[r]);
    const std::pair<const char*, const std::vector<std::string>*> lines[] = {
        {"adds       ", &c.change.added}, {"changes    ", &c.change.changed},
        {"removes    ", &c.change.removed}};
    for (const auto& [label, files] : lines) {
      if (!files->empty()) wrapped("      ", label, comma_list(*files));
    }
    std::string unlike;
    const std::pair<const char*, const std::vector<std::string>*> against[] = {
        {"lacks ", &c.from_factory.added}, {"differs in ", &c.from_factory.changed},
        {"keeps ", &c.from_factory.removed}};
    for (const auto& [label, files] : against) {
      if (!files->empty()) unlike += (unlike.empty() ? "" : "; ") + (label + comma_list(*files));
    }
    if (c.properties_differ) unlike += (unlike.empty() ? "" : "; ") + std::string("publishes other properties");
    if (!unlike.empty()) {
      wrapped("      ", kind == Courses::kRollback ? "unlike a device that never left: " : "unlike a new device: ",
              unlike);
    }
  }
}

// Old release |k| in words: as given, what it is, and its version line.
std::string release_words(const Options& options, const Report& report, size_t k) {
  return printable(options.update_from[k]) + " (" + options.update_from_kind[k] + ", version line " +
         shown(report.old_lines[k]) + ")";
}

}  // namespace

void print_text(const Options& options, const Report& report) {
  printf("tarnwick-check %s\n", printable(options.tree).c_str());
  printf("  configuration  %s\n", printable(report.config).c_str());
  std::string tested;
  for (const auto& [name, values] : report.tested) {
    std::vector<std::string> texts;
    for (const auto& v : values) texts.push_back(v ? shown(*v) : "(unset)");
    tested += (tested.empty() ? "" : "; ") + name + ": " + comma_list(texts);
  }
  wrapped("  ", "tested         ", tested.empty() ? "no property" : tested);
  for (const Stamp& stamp : report.stamps) {
    printf("  source stamp   %s, version line %s\n", printable(in_tree(stamp.path)).c_str(),
           shown(stamp.version_line).c_str());
  }

  const auto plural = [](size_t n) { return n == 1 ? "" : "s"; };
  printf("\nResolution: %zu product text%s x %zu setting%s, %zu row%s\n", report.product_count,
         plural(report.product_count), report.settings.size(), plural(report.settings.size()),
         report.rows.size(), plural(report.rows.size()));
  const bool next = !options.installed.empty();
  std::vector<std::vector<std::string>> cells = {{"product text", "when", "model", "tree"}};
  if (next) cells[0].push_back("next start");
  cells[0].push_back("why");
  for (const Row& row : report.rows) {
    std::string model = row.preliminary == row.final_model
                            ? shown(row.final_model)
                            : shown(row.preliminary) + " > " + shown(row.final_model);
    cells.push_back({products_of(row), row.when, model, printable("odm_" + row.final_model)});
    if (next) cells.back().push_back(row.provisions.value_or(false) ? "provisions" : "current");
    cells.back().push_back(printable(row.why));
  }
  // Long lists of product texts go on over further lines of their column.
  const size_t kProductsWidth = 32;
  std::vector<size_t> width(cells[0].size());
  for (const auto& line : cells) {
    width[0] = std::max(width[0], std::min(line[0].size(), kProductsWidth));
    for (size_t i = 1; i < line.size(); ++i) width[i] = std::max(width[i], line[i].size());
  }
  for (auto line : cells) {
    std::string products = line[0];
    do {
      size_t cut = products.size() <= width[0] ? products.size() : products.rfind(", ", width[0]);
      if (cut == std::string::npos || cut == 0) cut = std::min(products.size(), width[0]);
      line[0] = products.substr(0, cut + (cut < products.size() ? 1 : 0));
      products = cut < products.size() ? products.substr(std::min(products.size(), cut + 2)) : "";
      std::string text;
      for (size_t i = 0; i < line.size(); ++i) {
        text += "  " + line[i] + std::string(width[i] - std::min(width[i], line[i].size()), ' ');
      }
      printf("%s\n", text.substr(0, text.find_last_not_of(' ') + 1).c_str());
      line.assign(line.size(), "");
    } while (!products.empty());
  }

  printf("\nTrees installed\n");
  for (const Tree& tree : report.trees) {
    printf("  odm_%s\n", printable(tree.model).c_str());
    wrapped("    ", "installs   ", comma_list(tree.installs));
    std::vector<std::string> out;
    for (const auto& [name, what] : tree.left_out) out.push_back(name + " (" + what + ")");
    if (!out.empty()) wrapped("    ", "leaves out ", comma_list(out));
    for (const auto& [model, paths] : tree.removes) {
      wrapped("    ", "removes    ", "for " + shown(model) + ": " + comma_list(paths));
    }
  }

  for (size_t k = 0; k < options.update_from.size(); ++k) {
    printf("\nUpdate from %s: its devices once they take this tree\n",
           release_words(options, report, k).c_str());
    print_courses(report, Courses::kUpdate, k);
  }
  for (size_t k = 0; options.rollback && k < options.update_from.size(); ++k) {
    printf("\nRollback to %s: its devices that take this tree, then start it again\n",
           release_words(options, report, k).c_str());
    print_courses(report, Courses::kRollback, k);
  }
  if (!options.installed.empty()) {
    printf("\nNext starts on %s (judged as the rows marked *, whose new devices it is closest to)\n",
           printable(options.installed).c_str());
    print_courses(report, Courses::kInstalled, 0);
  }

  const size_t errors = count(report, true);
  const size_t warnings = count(report, false);
  printf("\nFindings: %zu error%s, %zu warning%s\n", errors, plural(errors), warnings,
         plural(warnings));
  std::vector<Finding> findings = report.findings;
  std::stable_sort(findings.begin(), findings.end(),
                   [](const Finding& a, const Finding& b) { return a.error > b.error; });
  for (const Finding& f : findings) {
    printf("  %-7s  %s  %s: %s\n           -> %s\n", f.error ? "error" : "warning", f.code.c_str(),
           printable(f.subject).c_str(), printable(f.message).c_str(), printable(f.advice).c_str());
  }
  if (report.findings.empty()) printf("  none\n");
}

void print_json(const Options& options, const Report& report) {
  using nlohmann::json;
  auto value = [](const std::optional<std::string>& v) { return v ? json(*v) : json(nullptr); };
  json doc = {{"version", kJsonVersion}, {"minor_version", kJsonMinorVersion}, {"tree", options.tree},
              {"tree_kind", options.tree_kind}, {"configuration", report.config}};
  if (!options.update_from.empty()) {
    doc["update_from"] = json::array();
    for (size_t k = 0; k < options.update_from.size(); ++k) {
      doc["update_from"].push_back({{"path", options.update_from[k]}, {"kind", options.update_from_kind[k]},
                                    {"version_line", report.old_lines[k]}});
    }
  }
  doc["rollback"] = options.rollback;
  if (!options.installed.empty()) doc["installed"] = options.installed;
  doc["tested"] = json::array();
  for (const auto& [name, values] : report.tested) {
    json vs = json::array();
    for (const auto& v : values) vs.push_back(value(v));
    doc["tested"].push_back({{"property", name}, {"values", vs}});
  }
  doc["settings"] = json::array();
  for (const Setting& setting : report.settings) {
    json s = json::object();
    for (const auto& [name, v] : setting) s[name] = value(v);
    doc["settings"].push_back(s);
  }
  doc["rows"] = json::array();
  for (const Row& row : report.rows) {
    json r = {{"products", row.products}, {"settings", row.settings}, {"when", row.when},
              {"preliminary", row.preliminary}, {"final", row.final_model},
              {"tree", "odm_" + row.final_model}, {"why", row.why}, {"stamp", in_tree(row.stamp)}};
    if (row.provisions) r["next_start_provisions"] = *row.provisions;
    const auto course = [](const Course& c, const char* against) {
      return json{{"provisions", c.provisions}, {"adds", c.change.added}, {"changes", c.change.changed},
                  {"removes", c.change.removed}, {"version_line_before", c.line_before},
                  {"version_line_after", c.line_after},
                  {against, {{"lacks", c.from_factory.added},
                             {"differs", c.from_factory.changed},
                             {"keeps", c.from_factory.removed},
                             {"properties_differ", c.properties_differ}}}};
    };
    if (!row.update.empty()) r["update"] = json::array();
    for (size_t k = 0; k < row.update.size(); ++k) {
      json u = course(row.update[k], "against_new_device");
      u["release"] = k;
      u["model_before"] = row.update[k].model_before;
      u["model_after"] = row.update[k].model_after;
      u["stamp_before"] = in_tree(row.old_stamp[k]);
      r["update"].push_back(u);
    }
    if (!row.rollback.empty()) r["rollback"] = json::array();
    for (size_t k = 0; k < row.rollback.size(); ++k) {
      json b = course(row.rollback[k], "against_old_device");
      b["release"] = k;
      b["model_before"] = row.rollback[k].model_before;
      b["model_after"] = row.rollback[k].model_after;
      b["model_of_old_device"] = row.rollback[k].new_model;
      r["rollback"].push_back(b);
    }
    if (row.installed) {
      r["installed"] = course(*row.installed, "against_new_device");
      r["installed"]["judged"] = row.installed_judged;
    }
    doc["rows"].push_back(r);
  }
  doc["trees"] = json::array();
  for (const Tree& tree : report.trees) {
    json left = json::array();
    for (const auto& [name, what] : tree.left_out) left.push_back({{"name", name}, {"type", what}});
    doc["trees"].push_back({{"tree", "odm_" + tree.model}, {"installs", tree.installs},
                            {"left_out", left}, {"removes", tree.removes}});
  }
  doc["stamps"] = json::array();
  for (const Stamp& stamp : report.stamps) {
    doc["stamps"].push_back({{"path", in_tree(stamp.path)}, {"version_line", stamp.version_line},
                             {"restarts_every_start", stamp.restarts_every_start},
                             {"products", stamp.products}});
  }
  doc["findings"] = json::array();
  for (const Finding& f : report.findings) {
    doc["findings"].push_back({{"code", f.code}, {"severity", f.error ? "error" : "warning"},
                               {"subject", f.subject}, {"message", f.message},
                               {"advice", f.advice}, {"locations", locations_json(options, f)},
                               {"releases", f.releases}});
  }
  doc["errors"] = count(report, true);
  doc["warnings"] = count(report, false);
  printf("%s\n", json_text(doc).c_str());
}
