// The installation that the reliability tests put under faults: a release-27 product folder at
// 4008 (so program files are backed up first) with a registered server, and a package of six
// files that replaces the program, a library, a text file and the server, and adds a second
// server and a text file in a folder that does not exist yet.
#pragma once

#include "registration/RegistrationFixtures.h"
#include "support/FolderState.h"
#include "support/KiteServers.h"
#include "support/PlatformOverride.h"

#include <map>
#include <string>
#include <vector>

namespace kitetest {

// What one run left, against the state before it and the state the package wants.
struct RunOutcome {
    bool intact = false;       // exactly as before (undone) or as the package wants (committed)
    bool noBytesLost = false;  // every old file's bytes are under its name or a GUID name beside it
    std::string difference;    // what differs, for the report
};

class ReliabilityFixture : public RegistrationTest {
  public:
    using State = std::map<std::string, std::string>;

    ReliabilityFixture() {
        pending_.Delete();
        CreateFolders(package_);
        CopyFileTo(FixturePath("tw27-program-4009.exe"), package_ + "\\tww.exe");
        CopyFileTo(FixturePath("tw27-library-4009.dll"), package_ + "\\BASECORE.DLL");
        WriteFileBytes(package_ + "\\readme.txt", "new readme");
        CopyFileTo(FixturePath("kitecom_ok.dll"), package_ + "\\srv.dll");
        CopyFileTo(FixturePath("kitecom_ok.dll"), package_ + "\\srv2.dll");
        WriteFileBytes(package_ + "\\notes.txt", "new notes");
        commands_ = {{"tww.exe", "tww.exe", "0"},
                     {"BASECORE.DLL", "BASECORE.DLL", "0"},
                     {"readme.txt", "readme.txt", "0"},
                     {"srv.dll", "srv.dll", "2"},
                     {"srv2.dll", "plugins\\srv2.dll", "2"},
                     {"notes.txt", "plugins\\notes.txt", "0"}};
        ArrangeProduct();
        EXPECT_EQ(RunProcess("regsvr32.exe /s " + Quote(product_ + "\\srv.dll")).exitCode, 0u);
        registryBefore_ = RegistryState(kServersKey);
        EXPECT_EQ(registryBefore_.count("srv.dll"), 1u);
    }

    struct Command {
        std::string src;  // in the package folder
        std::string dst;  // in the product folder
        std::string serverType;
    };

    std::string Manifest() const {
        std::string text = "<commands><appdir>" + product_ + "</appdir>";
        for (const Command& c : commands_) {
            text += "<command><src>" + package_ + "\\" + c.src + "</src><dst>" + product_ + "\\" +
                    c.dst + "</dst><register>" + c.serverType + "</register></command>";
        }
        return text + "</commands>";
    }

    void ArrangeProduct() {
        RemoveTree(product_);
        CreateFolders(product_);
        CopyFileTo(FixturePath("tw27-program-4008.exe"), product_ + "\\tww.exe");
        CopyFileTo(FixturePath("tw27-library-4008.dll"), product_ + "\\BASECORE.DLL");
        WriteFileBytes(product_ + "\\readme.txt", "installed readme");
        CopyFileTo(FixturePath("kitecom_ok.dll"), product_ + "\\srv.dll");
    }

    // A fresh product folder, the registrations as before, an empty log and fresh servers.
    void ArrangeRun(bool collector) {
        ArrangeProduct();
        ::RegDeleteTreeA(HKEY_LOCAL_MACHINE, kServersKey);
        for (const auto& value : registryBefore_) {
            ::RegSetKeyValueA(HKEY_LOCAL_MACHINE, kServersKey, value.first.c_str(), REG_SZ,
                              value.second.data(), static_cast<DWORD>(value.second.size()));
        }
        pending_.Delete();
        ClearLog();
        servers_.Clear();
        servers_.ServeRestoreFile("[takebackup]\r\n27=4100\r\n");
        if (collector) servers_.ServeConfiguration(CollectorConfiguration(servers_.collector));
        before_ = ProductFiles();
    }

    // The product folder apart from CriticalFixes, which keeps backups and the marker.
    State ProductFiles() const {
        State state = FolderState(product_);
        for (auto it = state.begin(); it != state.end();) {
            it = it->first.compare(0, 13, "CriticalFixes") == 0 ? state.erase(it) : std::next(it);
        }
        return state;
    }

    State Committed() const {
        State state = before_;
        for (const Command& c : commands_) state[c.dst] = ReadFileBytes(package_ + "\\" + c.src);
        state["plugins"] = "<folder>";
        return state;
    }

    static std::string Describe(const State& expected, const State& actual) {
        std::string text;
        for (const auto& entry : expected) {
            const auto found = actual.find(entry.first);
            if (found == actual.end()) {
                text += " missing " + entry.first + ";";
            } else if (found->second != entry.second) {
                text += " changed " + entry.first + ";";
            }
        }
        for (const auto& entry : actual) {
            if (expected.count(entry.first) == 0) text += " extra " + entry.first + ";";
        }
        return text;
    }

    RunOutcome Examine(HRESULT result) const {
        RunOutcome outcome;
        const State files = ProductFiles();
        const State registry = RegistryState(kServersKey);
        const std::string marker = product_ + "\\CriticalFixes\\force_apply_kite.dat";
        State expected;
        std::string registryDifference;
        std::string markerDifference;
        if (result == S_OK) {
            expected = Committed();
            if (registry.count("srv.dll") == 0 || registry.count("srv2.dll") == 0 ||
                registry.size() != 2) {
                registryDifference = " registrations not those of the package;";
            }
            if (Exists(marker)) markerDifference = " marker left;";
        } else {
            expected = before_;
            // Folders that the copy created are not journaled: they stay, emptied.
            if (files.count("plugins") != 0 && before_.count("plugins") == 0) {
                expected["plugins"] = "<folder>";
            }
            if (registry != registryBefore_) registryDifference = " registrations changed;";
            if (!Exists(marker) || ReadFileBytes(marker) != "") {
                markerDifference = " no empty marker;";
            }
        }
        outcome.difference = Describe(expected, files) + registryDifference + markerDifference;
        outcome.intact = outcome.difference.empty();
        outcome.noBytesLost = true;
        // A commit replaces the old files on purpose; only a failure must keep them.
        for (const auto& entry : result == S_OK ? State() : before_) {
            if (entry.second == "<folder>" || FindBytes(files, entry.first, entry.second)) continue;
            outcome.noBytesLost = false;
            outcome.difference += " bytes of " + entry.first + " gone;";
        }
        return outcome;
    }

    // The bytes under the file's own name, or under a GUID name in the same folder.
    static bool FindBytes(const State& files, const std::string& name, const std::string& bytes) {
        const auto own = files.find(name);
        if (own != files.end() && own->second == bytes) return true;
        const std::string::size_type slash = name.rfind('\\');
        const std::string folder = slash == std::string::npos ? "" : name.substr(0, slash + 1);
        for (const auto& entry : files) {
            if (entry.first.compare(0, folder.size(), folder) != 0) continue;
            const std::string rest = entry.first.substr(folder.size());
            if (!rest.empty() && rest[0] == '{' && rest.find('\\') == std::string::npos &&
                entry.second == bytes) {
                return true;
            }
        }
        return false;
    }

    static constexpr const char* kServersKey = "Software\\KiteTest\\Servers";

    RegistryValue pending_{"System\\CurrentControlSet\\Control\\Session Manager",
                           "PendingFileRenameOperations"};
    KiteServers servers_;
    std::string product_ = folder_ / "Tallowmere";
    std::string package_ = folder_ / "package";
    std::vector<Command> commands_;
    State before_;
    State registryBefore_;
};

}  // namespace kitetest
