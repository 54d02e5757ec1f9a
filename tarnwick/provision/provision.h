// The provisioning run: installs the selected model's ODM files under /odm,
// then records |version_line| and asks for a restart, unless the encryption
// mode and hardware configuration say to skip that.
#pragma once

#include <string>

void reboot_device(std::string version_line);
