// A host that calls the query exports in a loop. Several of these at once show how the exports
// and the shared log behave under load.
//
//   kitestress <settings.ini> <level> <count>
//     calls IsKITEApplicable count times; exits 1 when any answer is false.
//   kitestress query <settings.ini> <level> <count> <product folder> <old level> <new level>
//                    <ready event> <done event> <report file>
//     calls IsKITEApplicable, IsKITEToBeForceApplied and GetTwSlipstream2 at least count times
//     and on until the done event is set, then once more. It sets the ready event after its first
//     round, so that the caller can start an installation that updates the product from the old
//     level to the new one while the rounds go on. Every applicability answer must be true and
//     every force answer 0 (the installation that commits never leaves the marker); the levels
//     seen must run old ... -1 ... new: while the program and its libraries are being replaced
//     they have no level in common, and once the last is in place the new level stays. The first
//     round (before the installation) must see the old level and the last one (after it) the new.
//     The report file gets one line with the counts; the exit code is 1 when anything was wrong.
#include "KITEUpdate.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

template <typename Fn>
Fn Export(HMODULE module, const char* name) {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

int Query(HMODULE module, char** argv) {
    auto applicable = Export<IsKITEApplicableFn>(module, "IsKITEApplicable");
    auto forced = Export<IsKITEToBeForceAppliedFn>(module, "IsKITEToBeForceApplied");
    auto slipstream = Export<GetTwSlipstream2Fn>(module, "GetTwSlipstream2");
    if (applicable == nullptr || forced == nullptr || slipstream == nullptr) return 3;
    const std::string settings = argv[2];
    const int level = std::atoi(argv[3]);
    const int count = std::atoi(argv[4]);
    const char* folder = argv[5];
    const int oldLevel = std::atoi(argv[6]);
    const int newLevel = std::atoi(argv[7]);
    HANDLE ready = ::OpenEventA(EVENT_MODIFY_STATE, FALSE, argv[8]);
    HANDLE done = ::OpenEventA(SYNCHRONIZE, FALSE, argv[9]);
    if (ready == nullptr || done == nullptr) return 3;

    enum { kOld, kBetween, kNew } phase = kOld;
    int rounds = 0, olds = 0, betweens = 0, news = 0;
    std::string wrong;
    bool last = false;
    while (!last) {
        last = rounds >= count && ::WaitForSingleObject(done, 0) == WAIT_OBJECT_0;
        const std::string round = " round " + std::to_string(rounds + 1);
        if (!applicable(level, settings)) wrong += round + " not applicable;";
        const int force = forced(folder);
        if (force != 0) wrong += round + " force " + std::to_string(force) + ";";
        const int seen = slipstream(folder);
        if (seen == oldLevel && phase == kOld) {
            ++olds;
        } else if (seen == -1 && phase != kNew) {
            phase = kBetween;
            ++betweens;
        } else if (seen == newLevel) {
            phase = kNew;
            ++news;
        } else {
            wrong += round + " level " + std::to_string(seen) + " out of order;";
        }
        if (rounds == 0) {
            if (seen != oldLevel) wrong += " the first round did not see the old level;";
            ::SetEvent(ready);
        }
        ++rounds;
    }
    if (phase != kNew) wrong += " the last round did not see the new level;";
    FILE* report = std::fopen(argv[10], "wb");
    if (report != nullptr) {
        std::fprintf(report, "rounds %d old %d between %d new %d%s%s\n", rounds, olds, betweens,
                     news, wrong.empty() ? "" : " wrong:", wrong.c_str());
        std::fclose(report);
    }
    ::CloseHandle(ready);
    ::CloseHandle(done);
    return wrong.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const bool query = argc > 1 && std::string(argv[1]) == "query";
    if (query ? argc != 11 : argc != 4) {
        std::fprintf(stderr,
                     "usage: kitestress <settings.ini> <level> <count>\n"
                     "       kitestress query <settings.ini> <level> <count> <product folder> "
                     "<old level> <new level> <ready event> <done event> <report file>\n");
        return 2;
    }
    char self[MAX_PATH] = {};
    std::string dll(self, ::GetModuleFileNameA(nullptr, self, MAX_PATH));
    dll = dll.substr(0, dll.find_last_of('\\') + 1) + "KITEUpdate.dll";
    HMODULE module = ::LoadLibraryA(dll.c_str());
    if (module == nullptr) return 3;
    if (query) {
        const int code = Query(module, argv);
        ::FreeLibrary(module);
        return code;
    }
    auto applicable = Export<IsKITEApplicableFn>(module, "IsKITEApplicable");
    const int level = std::atoi(argv[2]);
    int wrong = 0;
    for (int i = std::atoi(argv[3]); i > 0; --i) {
        if (!applicable(level, argv[1])) ++wrong;
    }
    ::FreeLibrary(module);
    return wrong == 0 ? 0 : 1;
}
