// The findings as a SARIF 2.1.0 log, for the tools that show analysers'
// findings where people review and build: one rule per finding code, one
// result per finding, located in the files of the inputs as given.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>

#include "check/check.h"
#include "check/host_io.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

const char kSchema[] = "https://json.schemastore.org/sarif-2.1.0.json";

// |path| with every byte but the unreserved ones and "/" percent-encoded.
std::string uri_path(const std::string& path) {
  std::string out;
  for (unsigned char c : path) {
    if (isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~' || c == '/') {
      out += static_cast<char>(c);
    } else {
      char buf[4];
      snprintf(buf, sizeof(buf), "%%%02X", c);
      out += buf;
    }
  }
  return out;
}

// The base id of |location|'s input and the file URI of the directory it
// stands for (a package or an image is one, as a file manager shows it).
std::pair<std::string, std::string> base_of(const Options& options, const Location& location) {
  const std::string& input = location.input;
  std::string dir = input == kInTree        ? options.tree
                    : input == kInUpdateFrom ? options.update_from[location.release]
                    : input == kInInstalled  ? options.installed
                                             : fs::path(options.config).parent_path().string();
  std::string absolute = fs::absolute(dir.empty() ? "." : dir).lexically_normal().string();
  if (absolute.empty() || absolute.back() != '/') absolute += '/';
  std::string id = input == kInUpdateFrom ? "OLD" + std::to_string(location.release + 1) : input;
  for (char& c : id) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return {id, "file://" + uri_path(absolute)};
}

// Where file |location| stands inside its input as given.
std::string inside(const Options& options, const Location& location) {
  if (location.input == kInConfig) return fs::path(options.config).filename();
  const std::string inner = location.input == kInTree        ? options.tree_inner
                            : location.input == kInUpdateFrom ? options.update_from_inner[location.release]
                                                             : "";
  return inner.empty() ? location.file : location.file.empty() ? inner : inner + "/" + location.file;
}

}  // namespace

json locations_json(const Options& options, const Finding& finding) {
  json out = json::array();
  for (const Location& l : finding.locations) {
    json one = {{"input", l.input}, {"file", inside(options, l)}};
    if (l.input == kInUpdateFrom) one["release"] = l.release;
    if (l.line > 0) one["line"] = l.line;
    out.push_back(one);
  }
  return out;
}

void write_sarif(const Options& options, const Report& report) {
  json rules = json::array();
  std::map<std::string, size_t> index;
  for (const Rule& rule : ::rules()) {
    index[rule.code] = rules.size();
    rules.push_back({{"id", rule.code},
                     {"shortDescription", {{"text", rule.brief}}},
                     {"fullDescription", {{"text", rule.full}}},
                     {"help", {{"text", rule.help}}},
                     {"defaultConfiguration",
                      {{"level", rule.error || options.strict ? "error" : "warning"}}}});
  }
  json results = json::array();
  std::map<std::string, std::string> bases;
  for (const Finding& f : report.findings) {
    json where = json::array();
    for (const Location& l : f.locations) {
      const auto [id, uri] = base_of(options, l);
      bases[id] = uri;
      // A location about a file as a whole points at its first line.
      where.push_back({{"physicalLocation",
                        {{"artifactLocation", {{"uri", uri_path(inside(options, l))}, {"uriBaseId", id}}},
                         {"region", {{"startLine", std::max(l.line, 1)}}}}}});
    }
    json result = {{"ruleId", f.code},
                   {"level", f.error || options.strict ? "error" : "warning"},
                   {"message", {{"text", printable(f.subject + ": " + f.message + " -> " + f.advice)}}},
                   {"locations", where}};
    if (index.count(f.code) != 0) result["ruleIndex"] = index[f.code];
    results.push_back(result);
  }
  json base_ids = json::object();
  for (const auto& [id, uri] : bases) base_ids[id] = {{"uri", uri}};
  const json log = {
      {"$schema", kSchema},
      {"version", "2.1.0"},
      {"runs", json::array({{{"tool", {{"driver", {{"name", "tarnwick-check"},
                                                   {"version", TARNWICK_VERSION},
                                                   {"rules", rules}}}}},
                             {"originalUriBaseIds", base_ids},
                             {"results", results}}})}};
  const std::string text = json_text(log) + "\n";
  const int fd = open(options.sarif.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  size_t done = 0;
  for (ssize_t n = 0; fd >= 0 && done < text.size(); done += n) {
    if ((n = write(fd, text.data() + done, text.size() - done)) <= 0) break;
  }
  if (fd < 0 || done != text.size() || close(fd) != 0) {
    fail("cannot write --sarif " + options.sarif + ": " + strerror(errno));
  }
}
