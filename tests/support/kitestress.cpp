// A host that calls IsKITEApplicable in a loop: kitestress <settings.ini> <level> <count>.
// Several of these at once show how the exports and the shared log behave under load.
#include "KITEUpdate.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: kitestress <settings.ini> <level> <count>\n");
        return 2;
    }
    char self[MAX_PATH] = {};
    std::string dll(self, ::GetModuleFileNameA(nullptr, self, MAX_PATH));
    dll = dll.substr(0, dll.find_last_of('\\') + 1) + "KITEUpdate.dll";
    HMODULE module = ::LoadLibraryA(dll.c_str());
    if (module == nullptr) return 3;
    auto applicable = reinterpret_cast<IsKITEApplicableFn>(
        reinterpret_cast<void*>(::GetProcAddress(module, "IsKITEApplicable")));
    const int level = std::atoi(argv[2]);
    int wrong = 0;
    for (int i = std::atoi(argv[3]); i > 0; --i) {
        if (!applicable(level, argv[1])) ++wrong;
    }
    ::FreeLibrary(module);
    return wrong == 0 ? 0 : 1;
}
