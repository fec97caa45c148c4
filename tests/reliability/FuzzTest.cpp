// Mutated documents from the corpus in tests/reliability/corpus: package manifests through
// InstallKite, telemetry configuration documents through the configuration walk, and restore
// policy files through the backup decision. Every case ends with an answer of its kind, no crash
// and no hang; a failed installation leaves the product folder as it was.
//
// KITE_FUZZ_CASES (default 300 manifests; a third of that for each other kind) and KITE_FUZZ_SEED
// (default 8) choose the run; the seed is printed so that a run repeats. Each case is written to
// C:\kitetest\fuzz-case.txt before it runs, so that a case that ends the program can be replayed.
#include "KITEUpdate.h"

#include "installer/KiteInstaller.h"
#include "reliability/ReliabilityFixture.h"
#include "telemetry/TelemetryConfig.h"
#include "telemetry/TelemetryReporter.h"

#include <cstdio>
#include <cstdlib>
#include <random>
#include <cctype>
#include <cstring>

namespace {

using State = std::map<std::string, std::string>;

unsigned long EnvironmentNumber(const char* name, unsigned long fallback) {
    const char* text = std::getenv(name);
    return text == nullptr || *text == '\0' ? fallback : std::strtoul(text, nullptr, 10);
}

// The corpus folder of the source tree, seen through Wine's Z: drive.
std::string CorpusPath(const std::string& name) {
    std::string path = std::string("Z:") + KITE_RELIABILITY_CORPUS + "/" + name;
    for (char& c : path) {
        if (c == '/') c = '\\';
    }
    return path;
}

std::string Replace(std::string text, const std::string& from, const std::string& to) {
    for (std::string::size_type at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

class Mutator {
  public:
    Mutator(unsigned long seed, std::string product, std::string package, std::string outside)
        : random_(seed),
          product_(std::move(product)),
          package_(std::move(package)),
          outside_(std::move(outside)) {}

    std::size_t Below(std::size_t n) {
        return n == 0 ? 0 : std::uniform_int_distribution<std::size_t>(0, n - 1)(random_);
    }

    // Start and end of a random element "<name ...>...</name>" with text or children.
    bool PickElement(const std::string& text, std::size_t& begin, std::size_t& end) {
        for (int tries = 0; tries < 8; ++tries) {
            const std::size_t open = text.find('<', Below(text.size()));
            if (open == std::string::npos || open + 1 >= text.size()) continue;
            if (text[open + 1] == '/' || text[open + 1] == '!' || text[open + 1] == '?') continue;
            std::size_t nameEnd = open + 1;
            while (nameEnd < text.size() &&
                   std::isalnum(static_cast<unsigned char>(text[nameEnd]))) {
                ++nameEnd;
            }
            const std::string closing = "</" + text.substr(open + 1, nameEnd - open - 1) + ">";
            const std::size_t close = text.find(closing, nameEnd);
            if (close == std::string::npos) continue;
            begin = open;
            end = close + closing.size();
            return true;
        }
        return false;
    }

    // The text between a random "<tag>" and the next '<'.
    bool PickText(const std::string& text, const char* tag, std::size_t& begin, std::size_t& end) {
        std::vector<std::size_t> places;
        for (std::size_t at = text.find(tag); at != std::string::npos;
             at = text.find(tag, at + 1)) {
            places.push_back(at + std::strlen(tag));
        }
        if (places.empty()) return false;
        begin = places[Below(places.size())];
        end = text.find('<', begin);
        if (end == std::string::npos) end = text.size();
        return true;
    }

    std::string Mutate(std::string text, std::string& how) {
        static const char* const kTags[] = {"<src>", "<dst>", "<appdir>", "<register>",
                                            "<enableCodeForKITEFolderSupport>"};
        static const char* const kRegisters[] = {"",  "two", "-1", "0x2",        "99", "2.5", " 2",
                                                 "7", "3",   "4",  "2147483648", "1",  "5",   "6"};
        std::size_t begin = 0, end = 0;
        switch (Below(10)) {
            case 0:
                how += "truncate;";
                text.resize(Below(text.size()));
                break;
            case 1:
                how += "flip;";
                for (std::size_t n = 1 + Below(4); n > 0 && !text.empty(); --n) {
                    text[Below(text.size())] ^= static_cast<char>(1u << Below(8));
                }
                break;
            case 2:
                how += "duplicate;";
                if (PickElement(text, begin, end))
                    text.insert(end, text.substr(begin, end - begin));
                break;
            case 3:
                how += "delete;";
                if (PickElement(text, begin, end)) text.erase(begin, end - begin);
                break;
            case 4:
                how += "huge;";
                if (PickText(text, kTags[Below(3)], begin, end)) {
                    text.insert(begin + Below(end - begin + 1),
                                std::string(1 + Below(100000), "ab\\.x"[Below(5)]));
                }
                break;
            case 5: {
                const std::size_t depth = 1 + Below(130);
                how += "nest " + std::to_string(depth) + ";";
                if (PickElement(text, begin, end)) {
                    std::string open, close;
                    for (std::size_t i = 0; i < depth; ++i) {
                        open += "<n>";
                        close += "</n>";
                    }
                    text.insert(end, close);
                    text.insert(begin, open);
                }
                break;
            }
            case 6:
                how += "register;";
                if (PickText(text, "<register>", begin, end)) {
                    text.replace(begin, end - begin, kRegisters[Below(std::size(kRegisters))]);
                }
                break;
            case 7:
                how += "no backslash;";
                if (PickText(text, kTags[Below(2)], begin, end)) {
                    text.replace(begin, end - begin,
                                 Replace(text.substr(begin, end - begin), "\\", ""));
                }
                break;
            case 8:
                how += "outside;";
                if (PickText(text, "<dst>", begin, end)) {
                    text.replace(begin, end - begin,
                                 Replace(text.substr(begin, end - begin), product_, outside_));
                }
                break;
            default:
                how += "ansi;";
                if (PickText(text, kTags[Below(3)], begin, end)) {
                    std::string bytes;
                    for (std::size_t n = 1 + Below(6); n > 0; --n) {
                        bytes += static_cast<char>(0x80 + Below(0x80));
                    }
                    text.insert(begin + Below(end - begin + 1), bytes);
                }
                break;
        }
        return text;
    }

    std::mt19937 random_;

  private:
    std::string product_, package_, outside_;
};

// A case with a long run of text may end the program by design (an over-long path or event); it
// runs in a host of its own.
bool HasLongText(const std::string& text) {
    std::size_t run = 0;
    for (char c : text) {
        run = c == '<' ? 0 : run + 1;
        if (run > 150) return true;
    }
    return false;
}

class FuzzTest : public kitetest::ReliabilityFixture {
  public:
    // Everything below the test's folder apart from the package, with folders that hold no file
    // left out: an undone copy may leave the folders it created, emptied.
    State Tree() const {
        State state = kitetest::FolderState(folder_.path());
        for (auto it = state.begin(); it != state.end();) {
            const std::string& name = it->first;
            const bool drop = name.compare(0, 7, "package") == 0 ||
                              name.compare(0, 4, "data") == 0 ||
                              name.find("CriticalFixes") != std::string::npos || name == "case.xml";
            it = drop ? state.erase(it) : std::next(it);
        }
        // A failed installation leaves the marker under the product folder it was given, so a
        // folder whose only files were CriticalFixes' counts as empty.
        for (auto it = state.begin(); it != state.end();) {
            bool empty = it->second == "<folder>";
            for (auto inner = std::next(it); empty && inner != state.end(); ++inner) {
                if (inner->first.compare(0, it->first.size() + 1, it->first + "\\") != 0) continue;
                if (inner->second != "<folder>") empty = false;
            }
            it = empty ? state.erase(it) : std::next(it);
        }
        // Names are compared as Windows compares them, without regard to case: a manifest that
        // names an installed file in another case replaces that file, and its undo renames the
        // old bytes back under the manifest's spelling of the same name.
        State folded;
        for (const auto& entry : state) {
            std::string name = entry.first;
            for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            folded[name] = entry.second;
        }
        return folded;
    }

    void ArrangeCase() {
        ArrangeProduct();
        kitetest::RemoveTree(outside_);
        kitetest::CreateFolders(outside_);
        kitetest::WriteFileBytes(outside_ + "\\readme.txt", "outside readme");
        ::RegDeleteTreeA(HKEY_LOCAL_MACHINE, kServersKey);
        for (const auto& value : registryBefore_) {
            ::RegSetKeyValueA(HKEY_LOCAL_MACHINE, kServersKey, value.first.c_str(), REG_SZ,
                              value.second.data(), static_cast<DWORD>(value.second.size()));
        }
        ClearLog();
    }

    std::string outside_ = folder_ / "outside";
};

void VoidSleep(DWORD) {}

TEST_F(FuzzTest, MutatedManifestsEndInAnAnswerAndFailuresUndoEverything) {
    const unsigned long cases = EnvironmentNumber("KITE_FUZZ_CASES", 300);
    const unsigned long seed = EnvironmentNumber("KITE_FUZZ_SEED", 8);
    std::printf("manifest fuzz: %lu cases, seed %lu\n", cases, seed);
    kitetest::PlatformOverride platform;
    platform.calls().Sleep = VoidSleep;
    servers_.Clear();
    servers_.ServeRestoreFile("[takebackup]\r\n27=4100\r\n");
    kite::TelemetryReporter::Instance() = kite::TelemetryReporter();  // both channels off

    std::vector<std::string> corpus;
    for (const char* name :
         {"replace-files.xml", "folder-support.xml", "server.xml", "attributes-and-comments.xml"}) {
        const std::string text = kitetest::ReadFileBytes(CorpusPath(name));
        ASSERT_FALSE(text.empty()) << name;
        corpus.push_back(Replace(Replace(text, "$PRODUCT", product_), "$PACKAGE", package_));
    }
    Mutator mutator(seed, product_, package_, outside_);
    unsigned long committed = 0, undone = 0, ended = 0, inHost = 0;
    for (unsigned long n = 0; n < cases; ++n) {
        std::string how;
        std::string text = corpus[mutator.Below(corpus.size())];
        for (std::size_t m = 1 + mutator.Below(3); m > 0; --m) text = mutator.Mutate(text, how);
        const std::string what = "case " + std::to_string(n) + " (" + how + ")";
        ArrangeCase();
        kitetest::WriteFileBytes("C:\\kitetest\\fuzz-case.txt", text);
        const State before = Tree();
        unsigned long result = 0;
        if (HasLongText(text)) {
            ++inHost;
            kitetest::WriteFileBytes(folder_ / "case.xml", text);
            result =
                kitetest::RunProcess(kitetest::Quote(kitetest::ExeFolder() + "\\kiteinstall.exe") +
                                     " " + kitetest::Quote(folder_ / "case.xml"))
                    .exitCode;
        } else {
            result = static_cast<unsigned long>(InstallKite(text.c_str()));
        }
        if ((n + 1) % 1000 == 0) {
            std::printf("manifest fuzz: %lu cases run\n", n + 1);
            std::fflush(stdout);
        }
        if (result == 0xC0000417UL) {
            // A path or event too long for its buffer ends the host, as designed.
            ++ended;
            continue;
        }
        ASSERT_TRUE(result == 0 || result == 0x80004005UL)
            << what << ": " << std::hex << result << "\n"
            << text.substr(0, 2000);
        if (result == 0) {
            ++committed;
            continue;
        }
        ++undone;
        const State after = Tree();
        EXPECT_EQ(after, before) << what << ": " << Describe(before, after) << "\n"
                                 << text.substr(0, 2000);
        EXPECT_EQ(kitetest::RegistryState(kServersKey), registryBefore_) << what;
        if (HasFailure()) break;
    }
    std::printf(
        "manifest fuzz: %lu cases (%lu in a host of their own): %lu committed, %lu failed "
        "and undone, %lu ended the host (over-long text), 0 crashes, 0 hangs\n",
        cases, inHost, committed, undone, ended);
}

TEST_F(FuzzTest, MutatedConfigurationDocumentsAndRestorePoliciesGiveAnswers) {
    const unsigned long cases = EnvironmentNumber("KITE_FUZZ_CASES", 300) / 3;
    const unsigned long seed = EnvironmentNumber("KITE_FUZZ_SEED", 8);
    Mutator mutator(seed, product_, package_, outside_);

    unsigned long enabled = 0;
    for (unsigned long n = 0; n < cases; ++n) {
        std::string how;
        std::string text = kitetest::ReadFileBytes(
            CorpusPath(mutator.Below(2) ? "splunkconfig-1.xml" : "splunkconfig-2.xml"));
        for (std::size_t m = 1 + mutator.Below(3); m > 0; --m) text = mutator.Mutate(text, how);
        kitetest::WriteFileBytes("C:\\kitetest\\fuzz-case.txt", text);
        const kite::TelemetryConfig config =
            kite::ApplyConfigurationText(kite::TelemetryConfig(), text);
        if (config.ledEnabled || config.trackEnabled) ++enabled;
    }
    std::printf("configuration fuzz: %lu cases, seed %lu: %lu left a channel enabled, 0 crashes\n",
                cases, seed, enabled);

    // The policy as the restore server hands it out, read by the backup decision.
    kitetest::PlatformOverride platform;
    platform.calls().Sleep = VoidSleep;
    unsigned long off = 0;
    for (unsigned long n = 0; n < cases; ++n) {
        std::string how;
        std::string text = kitetest::ReadFileBytes(
            CorpusPath(mutator.Below(2) ? "restorekite-1.ini" : "restorekite-2.ini"));
        for (std::size_t m = 1 + mutator.Below(3); m > 0; --m) {
            // The INI mutations that apply: truncation, flips, huge values, ANSI bytes.
            const std::size_t kind = mutator.Below(3);
            if (kind == 0) text.resize(mutator.Below(text.size() + 1));
            if (kind == 1 && !text.empty()) text[mutator.Below(text.size())] ^= 0x20;
            if (kind == 2) {
                text.insert(mutator.Below(text.size() + 1),
                            std::string(1 + mutator.Below(5000), "9a\xE9="[mutator.Below(4)]));
            }
        }
        servers_.ServeRestoreFile(text);
        kite::CKiteInstaller installer;
        const int answer = installer.TakeBackup(27, 4008);
        ASSERT_TRUE(answer == 0 || answer == 1) << "restore case " << n << ": " << answer;
        if (answer == 0) ++off;
    }
    std::printf("restore policy fuzz: %lu cases, seed %lu: %lu switched backups off, 0 crashes\n",
                cases, seed, off);
}

}  // namespace

namespace {

// Cases the fuzzing found, kept as they were found, each run in a host of its own.
TEST_F(FuzzTest, CasesOnceFoundEndAsDesigned) {
    struct Row {
        const char* what;
        std::string manifest;
        DWORD exitCode;
    };
    const std::string command = "<command><src>" + package_ + "\\readme.txt</src><dst>" + product_ +
                                "\\readme.txt</dst><register>0</register></command>";
    const Row rows[] = {
        // The product program's version was read through a path of 100,000 characters, which
        // crashed Wine's version reader (0xC0000005); now the marker's path ends the host.
        {"a product folder of 100,000 characters",
         "<commands><appdir>" + product_ + std::string(100000, 'a') + "</appdir>" + command +
             "</commands>",
         0xC0000417UL},
        {"a product folder of 100,000 backslashes",
         "<commands><appdir>" + product_ + std::string(100000, '\\') + "</appdir>" + command +
             "</commands>",
         0xC0000417UL},
    };
    for (const Row& row : rows) {
        ArrangeCase();
        const State before = Tree();
        kitetest::WriteFileBytes(folder_ / "case.xml", row.manifest);
        const DWORD exitCode =
            kitetest::RunProcess(kitetest::Quote(kitetest::ExeFolder() + "\\kiteinstall.exe") +
                                 " " + kitetest::Quote(folder_ / "case.xml"))
                .exitCode;
        EXPECT_EQ(exitCode, row.exitCode) << row.what;
        EXPECT_EQ(Tree(), before) << row.what;
    }
}

}  // namespace
