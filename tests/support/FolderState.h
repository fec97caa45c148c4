// What a folder holds, for comparing a product folder before and after an installation.
#pragma once

#include <map>
#include <string>

namespace kitetest {

// Relative path → file bytes ("<folder>" for a folder), for everything below root.
std::map<std::string, std::string> FolderState(const std::string& root);

// The values of one HKLM key, name → data.
std::map<std::string, std::string> RegistryState(const std::string& key);

// The raw data of one HKLM value; empty when it does not exist.
std::string RegistryValueBytes(const std::string& key, const std::string& name);

}  // namespace kitetest
