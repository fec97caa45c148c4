#include "installer/Package.h"

#include <filesystem>
#include <functional>

namespace kitetest {

namespace {

struct File {
    const char* name;    // in the product folder
    const char* before;  // fixture installed, or null
    const char* after;   // fixture in the package
    int type;
};

// Replaced executable, libraries and server; a text file; a new server in a folder of its own.
const File kFiles[] = {
    {"tww.exe", "tw27-program-4008.exe", "tw27-program-4009.exe", 0},
    {"BASECORE.DLL", "tw27-library-4008.dll", "tw27-library-4009.dll", 0},
    {"Options.DLL", "tw27-library-4008.dll", "tw27-library-4009.dll", 0},
    {"readme.txt", nullptr, nullptr, 0},
    {"Server.dll", "kitecom_ok.dll", "kitecom_ok.dll", 2},
    {"Reports\\TwReports.dll", nullptr, nullptr, 2},
};

bool IsBackup(const std::string& path) {
    return path.rfind("CriticalFixes\\", 0) == 0 && path != "CriticalFixes\\force_apply_kite.dat" &&
           path != "CriticalFixes\\kite_journal.dat";
}

// Every file below root but the backup copies (which an undo keeps), by its path from there, as
// its size and a hash of its bytes: short enough to read in a failure.
Folder Summary(const std::string& root) {
    Folder summary;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        const std::string path = entry.path().string(), name = path.substr(root.size() + 1);
        if (!entry.is_regular_file() || IsBackup(name)) continue;
        const std::string bytes = ReadFileBytes(path);
        summary[name] = std::to_string(bytes.size()) + ":" +
                        std::to_string(std::hash<std::string>()(bytes) % 1000000);
    }
    return summary;
}

}  // namespace

Package::Package(const std::string& newServer)
    : newServer_(newServer), root_("package"), servers_(kServersKey) {
    CreateFolders(app());
    CreateFolders(pkg() + "\\Reports");
    for (const File& file : kFiles) {
        const std::string name = file.name;
        if (file.before) CopyFileTo(FixturePath(file.before), app() + "\\" + name);
        if (file.after) CopyFileTo(FixturePath(file.after), pkg() + "\\" + name);
    }
    WriteFileBytes(app() + "\\readme.txt", "old notes\r\n");
    WriteFileBytes(pkg() + "\\readme.txt", "new notes\r\n");
    if (!newServer_.empty()) {
        CopyFileTo(FixturePath(newServer_ + ".dll"), pkg() + "\\Reports\\TwReports.dll");
    }
    ::RegSetKeyValueA(HKEY_LOCAL_MACHINE, kServersKey, "Server.dll", REG_SZ, "registered", 11);
    before_ = State();
    installed_ = Summary(pkg());
}

std::string Package::Command(const std::string& src, const std::string& dst, int type,
                             const std::string& extra) {
    return "<command><src>" + src + "</src><dst>" + dst + "</dst><register>" +
           std::to_string(type) + "</register>" + extra + "</command>";
}

std::string Package::Manifest(const std::string& extra) const {
    std::string commands;
    for (const File& file : kFiles) {
        if (std::string(file.name).find("Reports") == 0 && newServer_.empty()) continue;
        const bool server = file.type != 0 && !newServer_.empty();
        commands += Command(pkg() + "\\" + file.name, app() + "\\" + file.name,
                            server ? file.type : 0, extra);
    }
    return ManifestOf(commands);
}

std::string Package::ManifestFile(const std::string& extra) const {
    const std::string path = root_ / "manifest.xml";
    WriteFileBytes(path, Manifest(extra));
    WriteFileBytes(root_ / "kite.ini", "[KITEApplicability]\r\nSlipstreams=R8\r\n");
    return path;
}

Folder Package::State() const { return Summary(app()); }

bool Package::ServerRegistered(const std::string& name) {
    return !RegistryValueBytes(kServersKey, name).empty();
}

void Package::ExpectCommitted() const {
    EXPECT_EQ(State(), installed_);
    EXPECT_TRUE(ServerRegistered("Server.dll"));
    EXPECT_EQ(ServerRegistered("TwReports.dll"), newServer_ == "kitecom_ok");
}

void Package::ExpectUndone() const {
    Folder expected = before_;
    expected["CriticalFixes\\force_apply_kite.dat"] =
        "0:" + std::to_string(std::hash<std::string>()("") % 1000000);
    EXPECT_EQ(State(), expected);
    EXPECT_TRUE(ServerRegistered("Server.dll"));
    EXPECT_FALSE(ServerRegistered("TwReports.dll"));
}

void Package::ExpectSettled() const {
    const Folder now = State();
    if (now == installed_) return ExpectCommitted();
    if (now != before_) return ExpectUndone();
    EXPECT_TRUE(ServerRegistered("Server.dll"));
    EXPECT_FALSE(ServerRegistered("TwReports.dll"));
}

}  // namespace kitetest
