// A host that installs one manifest: kiteinstall <manifest file>. It loads KITEUpdate.dll from its
// own folder, hands the file's text to InstallKite and exits with the result, so that a test can
// see an installation that ends its process (an over-long path) without ending its own.
#include "KITEUpdate.h"

#include <windows.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: kiteinstall <manifest file>\n");
        return 2;
    }
    std::ifstream file(argv[1], std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    char self[MAX_PATH] = {};
    std::string dll(self, ::GetModuleFileNameA(nullptr, self, MAX_PATH));
    dll = dll.substr(0, dll.find_last_of('\\') + 1) + "KITEUpdate.dll";
    HMODULE module = ::LoadLibraryA(dll.c_str());
    if (module == nullptr) return 3;
    auto install = reinterpret_cast<InstallKiteFn>(
        reinterpret_cast<void*>(::GetProcAddress(module, "InstallKite")));
    if (install == nullptr) return 3;
    return static_cast<int>(install(text.str().c_str()));
}
