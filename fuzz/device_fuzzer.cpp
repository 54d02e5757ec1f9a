// libFuzzer target over the program's configuration loader and model
// selection, inside the device sandbox. Input: a product text line, a
// NAME=VALUE property line, a model whose tree gets a manifest, and the
// configuration. Both callers' selections must agree.
#include <android-base/logging.h>
#include <unistd.h>

#include <filesystem>

#include "host/device_sandbox.h"
#include "tarnwick/config/config.h"
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
  if (answers[0] != answers[1]) abort();
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
  fuzz_config(std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}
