#include "KITEUpdate.h"

#include "support/KiteTest.h"

#include <memory>
#include <string>
#include <vector>

namespace {

using kitetest::Trail;

class ProductDetectionTest : public kitetest::LogTest {
  public:
    kitetest::KiteDll dll_;
    GetTwSlipstream2Fn slipstream2_ = dll_.Get<GetTwSlipstream2Fn>("GetTwSlipstream2");
    GetTwSlipstreamFn slipstream_ = dll_.Get<GetTwSlipstreamFn>("GetTwSlipstream");
    GetCountOfTwInstancesFn instances_ = dll_.Get<GetCountOfTwInstancesFn>("GetCountOfTwInstances");
};

TEST_F(ProductDetectionTest, ExportsAreFoundByNameAndByOrdinal) {
    const std::pair<WORD, const char*> exports[] = {
        {1, "GetCountOfTwInstances"}, {2, "GetTwSlipstream"}, {3, "GetTwSlipstream2"}};
    for (const auto& entry : exports) {
        ASSERT_NE(dll_.ByName(entry.second), nullptr) << entry.second;
        EXPECT_EQ(dll_.ByOrdinal(entry.first), dll_.ByName(entry.second)) << entry.second;
    }
}

constexpr int kMissing = 0;
constexpr int kNoVersion = -1;  // a program without a version resource

// Copies the product file of a build (kNoVersion: kitechild.exe) under a product name.
void Install(const kitetest::TempFolder& folder, const char* name, int build, bool program) {
    if (build == kMissing) return;
    const std::string fixture = program ? "tw-program-" + std::to_string(build) + ".exe"
                                        : "tw-library-" + std::to_string(build) + ".dll";
    kitetest::CopyFileTo(
        build == kNoVersion ? kitetest::HeldProgram::ProgramPath() : kitetest::FixturePath(fixture),
        folder / name);
}

// One file's trail: its version line, or the error code that reading it gave.
std::string TrailOf(const std::string& folder, const char* name, int build) {
    const std::string path = folder + "\\" + name;
    if (build > 0) {
        return Trail("GetSlipStreamFromFile",
                     "GetFileVersion() returned 0\r\n" + path + " : 33.0." + std::to_string(build) +
                         ".200. Level: " + std::to_string(build / 1000) +
                         "SlipStream: " + std::to_string(build % 1000) + "\r\n");
    }
    DWORD error = ERROR_FILE_NOT_FOUND;
    if (build == kNoVersion) {
        DWORD unused = 0;
        ::GetFileVersionInfoSizeA(path.c_str(), &unused);
        error = ::GetLastError();
    }
    return Trail("GetSlipStreamFromFile",
                 "GetFileVersion() returned " + std::to_string(error) + "\r\n");
}

TEST_F(ProductDetectionTest, SlipstreamOfTheInstallFolderFromRealVersionResources) {
    struct Row {
        const char* what;
        int tww, tww32, core, feature;  // the build of each file, or kMissing, or kNoVersion
        const char* mainRead;
        int slipstream;
    };
    const Row rows[] = {
        {"all at 4012", 4012, kMissing, 4012, 4012, "tww.exe", 12},
        {"feature library at 4013", 4012, kMissing, 4012, 4013, "tww.exe", -1},
        {"core library at 4013", 4012, kMissing, 4013, 4012, "tww.exe", -1},
        {"32-bit main program", kMissing, 4012, 4012, 4012, "tww32.exe", 12},
        {"tww.exe read before tww32.exe", 4013, 4012, 4012, 4012, "tww.exe", -1},
        {"build 999", 999, kMissing, 999, 999, "tww.exe", 999},
        {"build 1000", 1000, kMissing, 1000, 1000, "tww.exe", 0},
        {"feature library missing", 4012, kMissing, 4012, kMissing, "tww.exe", -1},
        {"no version resource", kNoVersion, kMissing, 4012, 4012, "tww.exe", -1},
        {"empty folder", kMissing, kMissing, kMissing, kMissing, "tww32.exe", -1},
    };
    for (const Row& row : rows) {
        kitetest::TempFolder product("product");
        Install(product, "tww.exe", row.tww, true);
        Install(product, "tww32.exe", row.tww32, true);
        Install(product, "BASECORE.DLL", row.core, false);
        Install(product, "Options.DLL", row.feature, false);
        ClearLog();
        EXPECT_EQ(slipstream2_(product.path().c_str()), row.slipstream) << row.what;
        const int mainBuild = std::string(row.mainRead) == "tww.exe" ? row.tww : row.tww32;
        EXPECT_EQ(ReadMaskedLog(), TrailOf(product.path(), row.mainRead, mainBuild) +
                                       TrailOf(product.path(), "BASECORE.DLL", row.core) +
                                       TrailOf(product.path(), "Options.DLL", row.feature))
            << row.what;
    }
}

TEST_F(ProductDetectionTest, SlipstreamFromTheTwVersionTextOfTheVersionKey) {
    const std::string suffix = "kitetest-" + std::to_string(::GetCurrentProcessId());
    struct Row {
        unsigned int major;
        const char* text;  // nullptr: the key has no "TWVersion" value
        int slipstream;
        std::string message;
    };
    const Row rows[] = {
        {33, "33.012.200", 12, "TW Version: 33.012.200, SlipStream: 12"},
        {33, "ab1234567", 234, "TW Version: ab1234567, SlipStream: 234"},
        {33, "33.x12", 0, "TW Version: 33.x12, SlipStream: 0"},
        {33, "33.12", 12, "TW Version: 33.12, SlipStream: 12"},
        {33, "33.7", 7, "TW Version: 33.7, SlipStream: 7"},
        {33, "abc", 0, "TW Version: abc, SlipStream: 0"},
        {33, "33", -1, "TW Version: 33, too short for a SlipStream"},
        {33, "", -1, "TW Version: , too short for a SlipStream"},
        {33, nullptr, -1, "TW Version: , too short for a SlipStream"},
        {4294967295u, "33.999", 999, "TW Version: 33.999, SlipStream: 999"},
    };
    for (const Row& row : rows) {
        const std::string key =
            "SOFTWARE\\Tolvix\\Tallowmere\\" + std::to_string(row.major) + ".0\\" + suffix;
        kitetest::RegistryKey versionKey(key);
        kitetest::RegistryValue value(key, "TWVersion");
        if (row.text != nullptr) value.SetString(row.text);
        ClearLog();
        EXPECT_EQ(slipstream_(row.major, suffix.c_str()), row.slipstream) << row.message;
        EXPECT_EQ(ReadMaskedLog(), Trail("GetTwSlipstream", row.message + "\r\n"));
    }
    ClearLog();
    EXPECT_EQ(slipstream_(33, suffix.c_str()), -1);
    EXPECT_EQ(ReadMaskedLog(), Trail("GetTwSlipstream", "")) << "no version key";
}

TEST_F(ProductDetectionTest, NullArgumentsAnswerMinusOneWithALogLine) {
    EXPECT_EQ(slipstream2_(nullptr), -1);
    EXPECT_EQ(slipstream_(33, nullptr), -1);
    EXPECT_EQ(ReadMaskedLog(),
              Trail("GetTwSlipstream2", "Invalid argument: install folder is null\r\n") +
                  Trail("GetTwSlipstream", "Invalid argument: suffix is null\r\n"));
}

// Real programs under the product's names, on C: and on K: (a second drive of the test prefix).
TEST_F(ProductDetectionTest, CountsRunningProgramsByNameAndFolderPrefix) {
    ASSERT_EQ(::GetDriveTypeA("K:\\"), static_cast<UINT>(DRIVE_FIXED)) << "the test prefix maps K:";
    ASSERT_EQ(instances_(nullptr), 0) << "product programs left running";
    kitetest::TempFolder onC("count");
    const std::string rest = onC.path().substr(2);  // "\kitetest\count-..."
    const std::string onK = "K:" + rest;
    struct KFolder {
        std::string path;
        ~KFolder() { kitetest::RemoveTree(path); }
    } kFolder{onK};
    const std::string programs[] = {onC / "Apps\\tww.exe", onC / "Apps\\tww32.exe",
                                    onC / "Apps2\\TWW.EXE", onC / "Other\\twwx.exe",
                                    onK + "\\Apps\\tww.exe"};
    {
        std::vector<std::unique_ptr<kitetest::HeldProgram>> running;
        for (const std::string& program : programs) {
            kitetest::CreateFolders(program.substr(0, program.rfind('\\')));
            kitetest::CopyFileTo(kitetest::HeldProgram::ProgramPath(), program);
            running.push_back(std::make_unique<kitetest::HeldProgram>());
            running.back()->Start(program);
        }
        struct Row {
            const char* filter;
            int count;
        };
        const std::string appsC = onC / "Apps";
        std::string appsCLower = appsC;
        for (char& c : appsCLower) c = static_cast<char>(::tolower(static_cast<unsigned char>(c)));
        const std::string filters[] = {appsC + "\\",    appsC, onC / "Apps2", appsCLower + "2\\",
                                       rest + "\\Apps", onK,   onC / "Other", onC / "Nowhere"};
        const Row rows[] = {
            {nullptr, 4},
            {filters[0].c_str(), 3},  // the trailing backslash is not compared: Apps2 counts
            {filters[1].c_str(), 3},
            {filters[2].c_str(), 1},
            {filters[3].c_str(), 1},
            {filters[4].c_str(), 4},  // no drive: C: and K: alike
            {filters[5].c_str(), 1},
            {filters[6].c_str(), 0},
            {filters[7].c_str(), 0},
        };
        for (const Row& row : rows) {
            EXPECT_EQ(instances_(row.filter), row.count) << (row.filter ? row.filter : "null");
        }
    }
    EXPECT_EQ(instances_(nullptr), 0) << "after the programs ended";
}

}  // namespace
