// kitehost: a command-line host for KITEUpdate.dll. It loads the DLL the way an updater does
// (LoadLibrary, exports looked up by name) and prints what each export answers.
//
//   kitehost [--dll PATH] COMMAND ARGS...
//
// The DLL is taken from next to kitehost.exe unless --dll names another. The diagnostic commands
// (telemetry, restore, event) reach parts of the library that no export offers; for them kitehost
// links the library itself and does not load the DLL.
#include "KITEUpdate.h"
#include "Signing.h"
#include "installer/KiteInstaller.h"
#include "telemetry/Download.h"
#include "telemetry/DownloadServer.h"
#include "telemetry/TelemetryReporter.h"

#include <windows.h>
#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Args = std::vector<std::string>;

int Usage();

struct Command {
    const char* name;
    const char* usage;
    std::size_t minArgs;
    std::size_t maxArgs;
    bool loadsDll;
    int (*run)(HMODULE dll, const Args& args);
};

template <typename Fn>
Fn Export(HMODULE dll, const char* name) {
    FARPROC proc = ::GetProcAddress(dll, name);
    if (proc == nullptr) {
        std::fprintf(stderr, "kitehost: the DLL has no export %s\n", name);
        std::exit(3);
    }
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(proc));
}

int RunApplicable(HMODULE dll, const Args& args) {
    const int level = std::atoi(args[0].c_str());
    const bool applies = Export<IsKITEApplicableFn>(dll, "IsKITEApplicable")(level, args[1]);
    std::printf("IsKITEApplicable(%d, %s) = %d (%s)\n", level, args[1].c_str(), applies ? 1 : 0,
                applies ? "the package applies to this release" : "the package does not apply");
    return 0;
}

int RunForce(HMODULE dll, const Args& args) {
    const int forced =
        Export<IsKITEToBeForceAppliedFn>(dll, "IsKITEToBeForceApplied")(args[0].c_str());
    std::printf("IsKITEToBeForceApplied(%s) = %d (%s)\n", args[0].c_str(), forced,
                forced ? "a force-apply marker is present" : "no force-apply marker");
    return 0;
}

int RunSlipstream(HMODULE dll, const Args& args) {
    const int level = Export<GetTwSlipstream2Fn>(dll, "GetTwSlipstream2")(args[0].c_str());
    std::printf("GetTwSlipstream2(%s) = %d (%s)\n", args[0].c_str(), level,
                level < 0 ? "the product files disagree or cannot be read"
                          : "the release level of the product files");
    return 0;
}

int RunSlipstreamRegistry(HMODULE dll, const Args& args) {
    const unsigned int major =
        static_cast<unsigned int>(std::strtoul(args[0].c_str(), nullptr, 10));
    const int level = Export<GetTwSlipstreamFn>(dll, "GetTwSlipstream")(major, args[1].c_str());
    std::printf("GetTwSlipstream(%u, %s) = %d (%s)\n", major, args[1].c_str(), level,
                level < 0 ? "no version key, or its TWVersion is too short"
                          : "the release level recorded in the registry");
    return 0;
}

int RunInstances(HMODULE dll, const Args& args) {
    const char* filter = args.empty() ? nullptr : args[0].c_str();
    const int count = Export<GetCountOfTwInstancesFn>(dll, "GetCountOfTwInstances")(filter);
    std::printf("GetCountOfTwInstances(%s) = %d (%s)\n", filter ? filter : "null", count,
                count < 0 ? "the processes cannot be listed"
                : filter  ? "product programs running from that folder"
                          : "product programs running");
    return 0;
}

std::string Source(const kite::ServerSetting& server, const char* valueName) {
    return server.fromRegistry ? std::string("registry value ") + valueName : "built in";
}

// Header values often carry credentials; only the header's name is shown.
std::string HeaderName(const std::string& header) {
    if (header.empty()) return "no extra header";
    return "header " + header.substr(0, header.find(':')) + " (value not shown)";
}

void PrintChannel(const char* title, bool enabled, const std::string& token,
                  const kite::EndpointSet& perf, const kite::EndpointSet& prod) {
    std::printf("%s: %s, %s\n", title, enabled ? "enabled" : "disabled",
                token.empty() ? "no token" : "token set");
    const kite::EndpointSet* sets[] = {&perf, &prod};
    const char* names[] = {"perf (PDS)", "prod"};
    for (int i = 0; i < 2; ++i) {
        if (sets[i]->host.empty()) {
            std::printf("  %-10s no host\n", names[i]);
            continue;
        }
        std::printf("  %-10s https://%s:443%s, %s\n", names[i], sets[i]->host.c_str(),
                    sets[i]->path.c_str(), HeaderName(sets[i]->header).c_str());
    }
}

int RunTelemetry(HMODULE, const Args&) {
    const kite::ServerSetting config = kite::ReadDownloadServer(kite::kConfigServerValue);
    const kite::ServerSetting restore = kite::ReadDownloadServer(kite::kRestoreServerValue);
    std::printf("Configuration: %s (%s)\n", kite::ConfigurationAddress(config.authority).c_str(),
                Source(config, kite::kConfigServerValue).c_str());
    std::printf("Restore file:  %s (%s)\n", kite::RestoreFileAddress(restore.authority).c_str(),
                Source(restore, kite::kRestoreServerValue).c_str());
    const kite::TelemetryReporter& reporter = kite::TelemetryReporter::Instance();
    PrintChannel("Error channel (LED)", reporter.ledEnabled, reporter.ledToken, reporter.ledPerf,
                 reporter.ledProd);
    PrintChannel("Tracking channel (Track)", reporter.trackEnabled, reporter.trackToken,
                 reporter.trackPerf, reporter.trackProd);
    std::printf("Kill switch: %s (recorded only: it stops no event)\n",
                reporter.killSwitchOpen ? "open" : "not open");
    return 0;
}

int RunRestore(HMODULE, const Args&) {
    const kite::FlushOnReturn flush;
    std::string policy;
    const HRESULT result = kite::SendRequestAndGetResponse(policy);
    std::printf("SendRequestAndGetResponse = 0x%08lX (%s)\n%s", static_cast<unsigned long>(result),
                result == S_OK     ? "downloaded"
                : result == E_FAIL ? "no internet connection, nothing attempted"
                                   : "the download failed",
                policy.c_str());
    return 0;
}

int RunEvent(HMODULE, const Args& args) {
    if (args[0] != "error" && args[0] != "info") return Usage();
    const bool isError = args[0] == "error";
    const kite::FlushOnReturn flush;
    kite::TelemetryReporter& reporter = kite::TelemetryReporter::Instance();
    reporter.ReportEvent(0, args[1].c_str(), isError);
    std::printf("ReportEvent(%s) sent as %s event; the %s channel is %s\n", args[1].c_str(),
                isError ? "an error" : "an informational", isError ? "error" : "tracking",
                (isError ? reporter.ledEnabled : reporter.trackEnabled) ? "enabled" : "disabled");
    return 0;
}

bool Exists(const std::string& path) {
    return ::GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::string LogPath() {
    char folder[MAX_PATH] = {};
    DWORD bytes = sizeof folder;
    if (::RegGetValueA(HKEY_LOCAL_MACHINE, "Software\\Tolvix\\TallowmereCommon",
                       "CommonFilesDataPath", RRF_RT_REG_SZ, nullptr, folder,
                       &bytes) != ERROR_SUCCESS) {
        return "(no CommonFilesDataPath: nothing is logged)";
    }
    return std::string(folder) + "\\twupdate\\log\\CRITICALFIXES.LOG";
}

const char* ResultInWords(long result) {
    switch (static_cast<unsigned long>(result)) {
        case 0:
            return "installed: every file placed and registered, the change committed";
        case 0x80070005UL:
            return "refused: administrator rights are needed; nothing was touched";
        case 0x80004005UL:
            return "failed: the installation was undone and will be forced next time";
        case 0x80096010UL:
            return "refused: a payload or the manifest's signature does not verify; nothing was "
                   "touched";
        case 0x800B0100UL:
            return "refused: the machine requires a signed manifest; nothing was touched";
        case 0x80070666UL:
            return "refused: the signed manifest is for other releases; nothing was touched";
        default:
            return "unexpected result";
    }
}

// What a host updater does with a package folder holding kite.ini and manifest.xml: find the
// installed release, decide whether the package applies or must be forced, make sure that the
// product is not running, then install.
int RunRecover(HMODULE dll, const Args& args) {
    const long result = Export<RecoverKiteFn>(dll, "RecoverKite")(args[0].c_str());
    std::printf("RecoverKite(%s) = %ld (%s)\n", args[0].c_str(), result,
                result == 0   ? "no interrupted installation"
                : result == 1 ? "an interrupted installation was undone; the fix will be forced"
                : result == 2 ? "an interrupted installation's commit was finished"
                              : "the journal of an interrupted installation cannot be read");
    return result < 0 ? 5 : 0;
}

int RunUpdate(HMODULE dll, const Args& args) {
    const std::string package = args[0];
    std::ifstream in(package + "\\manifest.xml", std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    const std::string manifest = text.str();
    // kitehost reads only what its report needs; the DLL parses the manifest for itself.
    std::string product;
    std::vector<std::string> files;
    try {
        const kite::ptree tree = kite::ParseManifest(manifest.c_str());
        product = tree.get<std::string>("commands.appdir");
        for (const kite::PlannedCommand& command : kite::ReadCommands(tree.get_child("commands"))) {
            files.push_back(command.dst);
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kitehost: %s\\manifest.xml cannot be read: %s\n", package.c_str(),
                     error.what());
        return 2;
    }
    std::printf("Update of %s\n  from package %s\n", product.c_str(), package.c_str());
    // An installation that a crash cut short is settled before anything is asked.
    const long recovered = Export<RecoverKiteFn>(dll, "RecoverKite")(product.c_str());
    std::printf("  interrupted installation (RecoverKite) ...... %s\n", recovered == 0   ? "none"
                                                                        : recovered == 1 ? "undone"
                                                                        : recovered == 2
                                                                            ? "commit finished"
                                                                            : "journal unreadable");

    const int level = Export<GetTwSlipstream2Fn>(dll, "GetTwSlipstream2")(product.c_str());
    std::printf("  release level (GetTwSlipstream2) ............ %d\n", level);
    const bool applies =
        Export<IsKITEApplicableFn>(dll, "IsKITEApplicable")(level, package + "\\kite.ini");
    std::printf("  package applies (IsKITEApplicable) .......... %s\n", applies ? "yes" : "no");
    const int forced =
        Export<IsKITEToBeForceAppliedFn>(dll, "IsKITEToBeForceApplied")(product.c_str());
    std::printf("  force marker (IsKITEToBeForceApplied) ....... %s\n", forced ? "yes" : "no");
    if (!applies && !forced) {
        std::printf("Nothing to do: the package is not for this release.\n");
        return 1;
    }
    const int running =
        Export<GetCountOfTwInstancesFn>(dll, "GetCountOfTwInstances")(product.c_str());
    std::printf("  running product programs (GetCountOfTwInstances) %d\n", running);
    if (running != 0) {
        std::printf("Refused: %s. Close Tallowmere and run the update again.\n",
                    running < 0 ? "the running programs cannot be listed"
                                : "the product is running from this folder");
        return 4;
    }

    std::vector<bool> existed;
    for (const std::string& file : files) existed.push_back(Exists(file));
    const long result = Export<InstallKiteFn>(dll, "InstallKite")(manifest.c_str());
    std::printf("  InstallKite ................................. 0x%08lX, %s\n",
                static_cast<unsigned long>(result), ResultInWords(result));
    for (std::size_t i = 0; i < files.size(); ++i) {
        const std::string name = files[i].substr(files[i].rfind('\\') + 1);
        const std::string backup = product + "\\CriticalFixes\\" + name;
        const char* what = result != 0 ? "unchanged" : existed[i] ? "replaced" : "added";
        std::printf("    %-9s %s%s\n", what, files[i].c_str(),
                    existed[i] && Exists(backup) ? ("  (backup: " + backup + ")").c_str() : "");
    }
    std::printf("  log: %s\n", LogPath().c_str());
    return result == 0 ? 0 : 5;
}

std::string ReadWhole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The manifest at path with the sha256 of every command's source filled in; false (after saying
// why) when it or a source cannot be read.
bool Digested(const std::string& path, bool dropSignatures, std::string& manifest) {
    try {
        manifest = kitehost::FillDigests(ReadWhole(path), dropSignatures);
        return true;
    } catch (const kitehost::SourceUnreadable& source) {
        std::fprintf(stderr, "kitehost: %s cannot be read\n", source.what());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kitehost: %s cannot be read: %s\n", path.c_str(), error.what());
    }
    return false;
}

// For package authors: the manifest with the sha256 of every command's source filled in, so that
// the installer verifies each payload before it changes anything.
int RunDigest(HMODULE, const Args& args) {
    std::string manifest;
    if (!Digested(args[0], false, manifest)) return 2;
    std::fputs(manifest.c_str(), stdout);
    return 0;
}

// For package authors: a new signing key in a file of its own (an existing file is never
// replaced), and its public key as a machine's KiteTrustedKeys holds it.
int RunKeygen(HMODULE, const Args& args) {
    kitehost::SigningKey key;
    if (!kitehost::GenerateSigningKey(key)) {
        std::fprintf(stderr, "kitehost: CNG cannot make a P-256 key\n");
        return 2;
    }
    const std::string text = kitehost::KeyFileText(key);
    bool written = false;
    {
        kite::UniqueHandle file(::CreateFileA(args[0].c_str(), GENERIC_WRITE, 0, nullptr,
                                              CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!file) {
            std::fprintf(stderr,
                         "kitehost: %s cannot be created (error %lu); a key file is never "
                         "replaced\n",
                         args[0].c_str(), ::GetLastError());
            return 2;
        }
        DWORD count = 0;
        written = ::WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &count,
                              nullptr) &&
                  count == text.size();
    }
    if (!written) {
        std::fprintf(stderr, "kitehost: %s cannot be written\n", args[0].c_str());
        ::DeleteFileA(args[0].c_str());
        return 2;
    }
    std::printf("%s\n", kitehost::PublicKeyText(key).c_str());
    return 0;
}

// For package authors: the manifest with every digest filled in and its signature, any old one
// removed. The bytes printed are the bytes signed, so stdout is switched to binary: a text-mode
// stdout would turn each line end into CR LF and break the signature.
int RunSign(HMODULE, const Args& args) {
    kitehost::SigningKey key;
    if (!kitehost::ReadKeyFileText(ReadWhole(args[1]), key)) {
        std::fprintf(stderr, "kitehost: %s is not a P-256 key file (PEM \"EC PRIVATE KEY\")\n",
                     args[1].c_str());
        return 2;
    }
    std::string manifest;
    if (!Digested(args[0], true, manifest)) return 2;
    const std::string signedManifest = kitehost::SignManifestText(manifest, key);
    if (signedManifest.empty()) {
        std::fprintf(stderr, "kitehost: %s cannot sign (CNG refused the key)\n", args[1].c_str());
        return 2;
    }
    std::fflush(stdout);
    _setmode(_fileno(stdout), _O_BINARY);
    std::fwrite(signedManifest.data(), 1, signedManifest.size(), stdout);
    return 0;
}

// For package authors: every check an installation makes before its first change, run over the
// package without changing anything; every refusal is listed, not only the first.
int RunCheck(HMODULE, const Args& args) {
    std::ifstream in(args[0] + "\\manifest.xml", std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    kite::CKiteInstaller installer;
    const std::vector<std::string> refusals = installer.CheckPackage(text.str().c_str());
    for (const std::string& refusal : refusals) std::printf("%s\n", refusal.c_str());
    if (refusals.empty()) std::printf("%s\\manifest.xml: accepted\n", args[0].c_str());
    return refusals.empty() ? 0 : 5;
}

const Command kCommands[] = {
    {"applicable", "applicable <level> <settings.ini>", 2, 2, true, RunApplicable},
    {"force", "force <product folder>", 1, 1, true, RunForce},
    {"slipstream", "slipstream <product folder>", 1, 1, true, RunSlipstream},
    {"slipstream-registry", "slipstream-registry <major version> <suffix>", 2, 2, true,
     RunSlipstreamRegistry},
    {"instances", "instances [folder]", 0, 1, true, RunInstances},
    {"telemetry", "telemetry           (linked library) the effective telemetry configuration", 0,
     0, false, RunTelemetry},
    {"restore", "restore             (linked library) download restorekite.ini and show it", 0, 0,
     false, RunRestore},
    {"event", "event error|info <message>  (linked library) report one telemetry event", 2, 2,
     false, RunEvent},
    {"recover", "recover <product folder>", 1, 1, true, RunRecover},
    {"update", "update <package folder>  (holding kite.ini and manifest.xml)", 1, 1, true,
     RunUpdate},
    {"digest", "digest <manifest.xml>  (linked library) print it with every source's sha256", 1, 1,
     false, RunDigest},
    {"check", "check <package folder>  (linked library) list every refusal of its manifest.xml", 1,
     1, false, RunCheck},
    {"keygen",
     "keygen <private key file>  (linked library) write a new signing key, print its "
     "public key",
     1, 1, false, RunKeygen},
    {"sign",
     "sign <manifest.xml> <private key file>  (linked library) print it with every "
     "sha256 and its signature",
     2, 2, false, RunSign},
};

int Usage() {
    std::fprintf(stderr, "usage: kitehost [--dll PATH] COMMAND ARGS...\ncommands:\n");
    for (const Command& command : kCommands) std::fprintf(stderr, "  %s\n", command.usage);
    std::fprintf(stderr,
                 "(linked library): kitehost runs its own copy of the library; the DLL is not "
                 "loaded\n");
    return 2;
}

std::string DefaultDllPath() {
    char self[MAX_PATH] = {};
    const DWORD length = ::GetModuleFileNameA(nullptr, self, MAX_PATH);
    std::string path(self, length);
    const std::string::size_type slash = path.find_last_of("\\/");
    return (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) +
           "KITEUpdate.dll";
}

}  // namespace

int main(int argc, char** argv) {
    Args args(argv + 1, argv + argc);
    std::string dllPath = DefaultDllPath();
    if (args.size() >= 2 && args[0] == "--dll") {
        dllPath = args[1];
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.empty()) return Usage();
    for (const Command& command : kCommands) {
        if (args[0] != command.name) continue;
        const std::size_t given = args.size() - 1;
        if (given < command.minArgs || given > command.maxArgs) return Usage();
        if (!command.loadsDll) return command.run(nullptr, Args(args.begin() + 1, args.end()));
        HMODULE dll = ::LoadLibraryA(dllPath.c_str());
        if (dll == nullptr) {
            std::fprintf(stderr, "kitehost: cannot load %s (error %lu)\n", dllPath.c_str(),
                         ::GetLastError());
            return 3;
        }
        const int status = command.run(dll, Args(args.begin() + 1, args.end()));
        ::FreeLibrary(dll);
        return status;
    }
    return Usage();
}
