// console_bundle.h - the terminal library as one script. Debian installs it as modules, which browsers cannot load. No
// state.
#pragma once

#include <string>

// All modules below the library's folder, each loaded when it is first required, with the global "Terminal" taken from
// the entry ("public/Terminal"). "" when the folder holds no such module.
std::string console_bundle(const std::string &folder, const std::string &entry);
