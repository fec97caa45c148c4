// A Tallowmere 27.0.4008 installation in a folder of its own and a package for it: the three
// product files at 4009, a text file, and two component servers (one replacing a registered
// server, one new in a folder of its own). Tests install it, break it, and compare the whole
// product folder and the server registry key against the two states it may end in.
#pragma once

#include "support/KiteTest.h"

#include <map>
#include <string>

namespace kitetest {

using Folder = std::map<std::string, std::string>;

constexpr const char* kServersKey = "Software\\KiteTest\\Servers";

class Package {
  public:
    // newServer: the fixture that the package's new server is built from ("kitecom_ok",
    // "kitecom_fail"); empty for a package without component servers.
    explicit Package(const std::string& newServer = "kitecom_ok");

    const TempFolder& root() const { return root_; }
    std::string app() const { return root_ / "app"; }
    std::string pkg() const { return root_ / "pkg"; }
    std::string Marker() const { return app() + "\\CriticalFixes\\force_apply_kite.dat"; }
    // The manifest of the whole package; extra is placed inside every command element.
    std::string Manifest(const std::string& extra = "") const;
    std::string ManifestFile(const std::string& extra = "") const;
    std::string ManifestOf(const std::string& commands) const {
        return "<commands><appdir>" + app() + "</appdir>" + commands + "</commands>";
    }
    static std::string Command(const std::string& src, const std::string& dst, int type,
                               const std::string& extra = "");

    // The product folder now, without folders and without backup copies (which an undo keeps).
    Folder State() const;
    const Folder& before() const { return before_; }
    const Folder& installed() const { return installed_; }
    // Whether the replaced server is registered: true before, after a commit and after an undo.
    static bool ServerRegistered(const std::string& name);

    void ExpectCommitted() const;
    void ExpectUndone() const;
    // Committed, or undone with its marker, or untouched without one (refused before the first
    // change): what any fault may leave.
    void ExpectSettled() const;

  private:
    std::string newServer_;
    TempFolder root_;
    RegistryKey servers_;
    Folder before_;
    Folder installed_;
};

// A fresh log for each test, and downloads sent to a loopback port where nothing listens, so
// that they are refused at once.
class InstallationTest : public LogTest {
  public:
    InstallationTest() {
        restoreServer_.SetString("127.0.0.1:9");
        configServer_.SetString("127.0.0.1:9");
    }
    RegistryValue restoreServer_{kCommonKey, "KiteRestoreServer"};
    RegistryValue configServer_{kCommonKey, "KiteConfigServer"};
};

}  // namespace kitetest
