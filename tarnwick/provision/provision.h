// The provisioning run: installs the selected model's ODM files under /odm,
// then records |version_line| and asks for a restart, unless the encryption
// mode and hardware configuration say to skip that.
#pragma once

#include <string>
#include <vector>

// Where a model's files are installed from and to; both end in "/".
inline constexpr char kOdmEtcDir[] = "/odm/etc/";
std::string source_etc_dir(const std::string& model);

// Installed from every tree before the files its etc/ listing names, in this
// order; relative to the two directories above.
inline constexpr const char* kFixedInstalls[] = {"vintf/manifest.xml",
                                                 "permissions/unavailable_features.xml"};

// The manifests a former install may have left under other names, removed
// before an install, in removal order; |model| is the preliminary model.
std::vector<std::string> stale_manifest_paths(const std::string& model);

void reboot_device(std::string version_line);
