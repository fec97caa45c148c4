#include "installer/FolderHold.h"

#include <windows.h>

#include <cctype>
#include <cstdio>

namespace kite {

std::string FolderHoldName(const std::string& longPath) {
    unsigned long long hash = 14695981039346656037ULL;  // FNV-1a
    for (const char c : longPath) {
        hash = (hash ^ static_cast<unsigned char>(std::toupper(static_cast<unsigned char>(c)))) *
               1099511628211ULL;
    }
    char name[64];
    std::snprintf(name, sizeof name, "Global\\KITEUpdate.Install.%016llx", hash);
    return name;
}

bool FolderHold::Take(const std::string& productFolder) {
    if (!mutex_) {
        char longPath[MAX_PATH];
        const DWORD length = ::GetLongPathNameA(productFolder.c_str(), longPath, sizeof longPath);
        const std::string path =
            length > 0 && length < sizeof longPath ? std::string(longPath) : productFolder;
        // Without the mutex nothing can tell a second host apart: it counts as busy.
        mutex_.reset(::CreateMutexA(nullptr, FALSE, FolderHoldName(path).c_str()));
        if (!mutex_) return false;
    }
    const DWORD wait = ::WaitForSingleObject(mutex_.get(), 0);
    if (wait != WAIT_OBJECT_0 && wait != WAIT_ABANDONED) return false;
    ++taken_;
    return true;
}

FolderHold::~FolderHold() {
    for (; taken_ > 0; --taken_) ::ReleaseMutex(mutex_.get());
}

}  // namespace kite
