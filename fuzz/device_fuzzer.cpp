// libFuzzer target over the program's library, inside the device sandbox.
// Input 'c' + a product text line, a NAME=VALUE property line, a model whose
// tree gets a manifest, and the configuration: both callers' selections
// agree, and the image name query publishes that answer. Any other first
// byte is a flag (1: no destination directory, 2: an older, longer copy with
// mode 0600 in place) before a file: its copy is the file plus a newline when
// its last line has none, with mode 0644.
#include <android-base/logging.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "host/device_sandbox.h"
#include "tarnwick/config/config.h"
#include "tarnwick/fileutil/fileutil.h"
#include "tests/harness.h"

namespace fs = std::filesystem;

namespace {

std::string take_line(std::string* rest) {
  const size_t end = rest->find('\n');
  std::string line = rest->substr(0, end);
  rest->erase(0, end == std::string::npos ? rest->size() : end + 1);
  return line;
}

// A name that stays one directory entry.
bool plain(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

void fuzz_config(std::string rest) {
  const std::string product = take_line(&rest).substr(0, 91);
  const std::string property = take_line(&rest);
  const std::string model = take_line(&rest);
  for (const auto& entry : fs::directory_iterator("/dev/__properties__")) fs::remove(entry.path());
  const size_t eq = property.find('=');
  if (eq != std::string::npos && plain(property.substr(0, eq))) {
    put("/dev/__properties__/" + property.substr(0, eq), property.substr(eq + 1, 91));
  }
  put("/dev/__properties__/ro.vendor.product", product);
  fs::remove_all("/vendor/etc");
  put(source_manifest_path(kDefaultModel), "");
  if (plain(model)) put(source_manifest_path(model), "");
  put("/odm/etc/odmconfig.xml", rest);
  std::string answers[2];
  for (SelectionVariant variant : {kProvisioningRun, kImageNameQuery}) {
    ModelAliasMap.clear();
    TargetAliasMap.clear();
    create_map_from_config();
    answers[variant] = confirm_model_source(select_model_name(variant), variant);
  }
  ModelAliasMap.clear();
  TargetAliasMap.clear();
  fs::remove("/dev/__properties__/ro.vendor.odm_image");
  getodmimagename();
  const std::string published = get("/dev/__properties__/ro.vendor.odm_image");
  // The property store refuses only names that are no UTF-8.
  const bool ascii = std::all_of(answers[0].begin(), answers[0].end(), [](char c) { return c > 0; });
  if (answers[0] != answers[1] || (published != answers[0] && (ascii || published != "<missing>"))) {
    abort();
  }
}

void fuzz_file(int flags, const std::string& source) {
  put("/vendor/src", source);
  fs::remove_all("/odm/d");
  const std::string dst = flags & 1 ? "/odm/d/none/dst" : "/odm/d/dst";
  if ((flags & 3) == 2) put(dst, source + "older and longer");
  chmod(dst.c_str(), 0600);
  fs::create_directories("/odm/d");
  const bool result = copy_file("/vendor/src", dst);
  if (truncate("/dev/kmsg", 0) != 0) abort();
  struct stat st {};
  const std::string copy = source.empty() || source.back() == '\n' ? source : source + "\n";
  if (flags & 1 ? result != source.empty() || fs::exists("/odm/d/none")
                : !result || get(dst) != copy || stat(dst.c_str(), &st) != 0 || (st.st_mode & 07777) != 0644) {
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  if (device_sandbox::inside()) {
    android::base::SetMinimumLogSeverity(android::base::FATAL);
    return 0;
  }
  // The working directory is bound at its own path: corpus, artifacts and
  // inputs are given relative to it.
  const std::string root = device_sandbox::make_root(), cwd = fs::current_path();
  _exit(device_sandbox::rerun(root, {"--bind", cwd, cwd, "--bind", root + "/vendor", "/vendor"},
                              std::vector<std::string>(*argv + 1, *argv + *argc)));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  if (!bytes.empty() && bytes[0] == 'c') fuzz_config(bytes.substr(1));
  if (!bytes.empty() && bytes[0] != 'c') fuzz_file(bytes[0], bytes.substr(1));
  return 0;
}
