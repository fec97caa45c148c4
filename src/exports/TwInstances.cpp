// The count of running product main programs, optionally only those run from one folder.
#include "exports/ProductDetection.h"

#include "KITEUpdate.h"

#include "common/Handles.h"
#include "common/Platform.h"

#include <windows.h>
#include <mbstring.h>
#include <string.h>
#include <tlhelp32.h>

#include <cstring>

namespace kite {

namespace {

using CreateSnapshotFn = decltype(&::CreateToolhelp32Snapshot);
using ProcessWalkFn = decltype(&::Process32First);

template <typename Fn>
Fn Lookup(HMODULE module, const char* name) {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

// A process that cannot be opened or whose path cannot be read is not counted.
bool RunsFromFolder(DWORD processId, const char* filter) {
    UniqueHandle process(
        Platform().OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, processId));
    if (!process) return false;
    char path[MAX_PATH] = {};
    if (Platform().GetModuleFileNameExA(process.get(), nullptr, path, MAX_PATH) == 0) return false;
    return ModulePathMatchesFilter(path, filter);
}

int CountTwProcesses(HANDLE snapshot, ProcessWalkFn first, ProcessWalkFn next, const char* filter) {
    PROCESSENTRY32 entry = {};
    entry.dwSize = sizeof entry;
    if (!first(snapshot, &entry)) return -1;
    int count = 0;
    do {
        if (IsTwProgramName(entry.szExeFile) &&
            (filter == nullptr || RunsFromFolder(entry.th32ProcessID, filter))) {
            ++count;
        }
    } while (next(snapshot, &entry));
    return count;
}

}  // namespace

bool IsTwProgramName(const char* exeName) {
    return _stricmp(exeName, kMainProgram) == 0 || _stricmp(exeName, kMainProgram32) == 0;
}

bool ModulePathMatchesFilter(const char* modulePath, const char* filter) {
    const std::size_t filterLength = std::strlen(filter);
    std::size_t compared = filterLength;
    if (compared > 0 && filter[compared - 1] == '\\') --compared;
    if (filterLength > 2 && filter[1] != ':') {
        if (::strnlen(modulePath, 2) < 2) return false;
        modulePath += 2;
    }
    // Byte-wise in the ANSI code page, so that a double-byte name compares as a whole.
    return _mbsnbicmp(reinterpret_cast<const unsigned char*>(modulePath),
                      reinterpret_cast<const unsigned char*>(filter), compared) == 0;
}

}  // namespace kite

extern "C" int GetCountOfTwInstances(const char* folderFilter) {
    try {
        // Toolhelp is looked up by name, so a system without it answers -1 instead of refusing to
        // load the library. Only the system folder is searched: the host's folder and the
        // current one may hold a planted copy.
        kite::UniqueModule kernel(
            ::LoadLibraryExA("KERNEL32.DLL", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32));
        if (!kernel) return -1;
        const auto createSnapshot =
            kite::Lookup<kite::CreateSnapshotFn>(kernel.get(), "CreateToolhelp32Snapshot");
        if (createSnapshot == nullptr) return -1;
        kite::UniqueHandle snapshot(createSnapshot(TH32CS_SNAPPROCESS, 0));
        if (!snapshot) return -1;
        const auto first = kite::Lookup<kite::ProcessWalkFn>(kernel.get(), "Process32First");
        const auto next = kite::Lookup<kite::ProcessWalkFn>(kernel.get(), "Process32Next");
        if (first == nullptr || next == nullptr) return -1;
        return kite::CountTwProcesses(snapshot.get(), first, next, folderFilter);
    } catch (...) {
        return -1;
    }
}
