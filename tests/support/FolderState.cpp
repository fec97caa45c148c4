#include "support/FolderState.h"

#include "support/KiteTest.h"

namespace kitetest {

namespace {

void Collect(const std::string& root, const std::string& relative,
             std::map<std::string, std::string>& state) {
    WIN32_FIND_DATAA entry;
    const std::string folder = relative.empty() ? root : root + "\\" + relative;
    HANDLE find = ::FindFirstFileA((folder + "\\*").c_str(), &entry);
    if (find == INVALID_HANDLE_VALUE) return;
    do {
        const std::string name = entry.cFileName;
        if (name == "." || name == "..") continue;
        const std::string path = relative.empty() ? name : relative + "\\" + name;
        if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
            state[path] = "<folder>";
            Collect(root, path, state);
        } else {
            state[path] = ReadFileBytes(root + "\\" + path);
        }
    } while (::FindNextFileA(find, &entry));
    ::FindClose(find);
}

}  // namespace

std::map<std::string, std::string> FolderState(const std::string& root) {
    std::map<std::string, std::string> state;
    Collect(root, "", state);
    return state;
}

std::map<std::string, std::string> RegistryState(const std::string& key) {
    std::map<std::string, std::string> state;
    HKEY handle = nullptr;
    if (::RegOpenKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &handle) != ERROR_SUCCESS) {
        return state;
    }
    char name[256];
    static BYTE data[65536];
    for (DWORD i = 0;; ++i) {
        DWORD nameChars = sizeof name;
        DWORD bytes = sizeof data;
        if (::RegEnumValueA(handle, i, name, &nameChars, nullptr, nullptr, data, &bytes) !=
            ERROR_SUCCESS) {
            break;
        }
        state[name] = std::string(reinterpret_cast<char*>(data), bytes);
    }
    ::RegCloseKey(handle);
    return state;
}

std::string RegistryValueBytes(const std::string& key, const std::string& name) {
    const std::map<std::string, std::string> values = RegistryState(key);
    const auto found = values.find(name);
    return found == values.end() ? std::string() : found->second;
}

}  // namespace kitetest
