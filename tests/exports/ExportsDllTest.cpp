#include "KITEUpdate.h"

#include "support/KiteTest.h"

namespace {

using kitetest::Quote;
using kitetest::Trail;

class ExportsTest : public kitetest::LogTest {
  public:
    // The product files at the given builds (0: missing) under the product's names.
    void Product(const kitetest::TempFolder& folder, std::vector<int> builds) {
        const char* names[] = {"tww.exe", "tww32.exe", "BASECORE.DLL", "Options.DLL"};
        for (int i = 0; i < 4; ++i) {
            const std::string fixture = (i < 2 ? "tw-program-" : "tw-library-") +
                                        std::to_string(builds[i]) + (i < 2 ? ".exe" : ".dll");
            if (builds[i]) kitetest::CopyFileTo(kitetest::FixturePath(fixture), folder / names[i]);
        }
    }
    kitetest::KiteDll dll_;
    GetTwSlipstream2Fn level_ = dll_.Get<GetTwSlipstream2Fn>("GetTwSlipstream2");
};

// Build 4012 is level 4, slipstream 12; the three files must agree; tww32.exe only without tww.exe.
TEST_F(ExportsTest, LevelOfTheFolderFromRealVersionResources) {
    const std::pair<std::vector<int>, int> rows[] = {
        {{999, 0, 999, 999}, 999},      {{1000, 0, 1000, 1000}, 0},  {{0, 4012, 4012, 4012}, 12},
        {{4013, 4012, 4012, 4012}, -1}, {{4012, 0, 4013, 4012}, -1}, {{4012, 0, 4012, 4013}, -1},
        {{4012, 0, 4012, 0}, -1},
    };
    for (const auto& row : rows) {
        kitetest::TempFolder product("product");
        Product(product, row.first);
        EXPECT_EQ(level_(product.path().c_str()), row.second) << row.first[0] << row.first[2];
    }
}

// One row per outcome of each export: its answer and the exact lines it logs; then the same
// answers as kitehost prints them.
TEST_F(ExportsTest, AnswersAndLogLines) {
    kitetest::TempFolder product("product"), other("other");
    Product(product, {4012, 0, 4012, 4012});
    kitetest::CreateFolders(product / "CriticalFixes");
    kitetest::WriteFileBytes(product / "CriticalFixes\\force_apply_kite.dat", "");
    const std::string ini = other / "kite.ini", p = product.path(), o = other.path();
    kitetest::WriteFileBytes(ini, "[KITEApplicability]\r\nSlipstreams=R3,,R5\r\n");
    const std::string key = "SOFTWARE\\Tolvix\\Tallowmere\\33.0\\kitetest";
    kitetest::RegistryKey versionKey(key);
    kitetest::RegistryValue version(key, "TWVersion");
    const auto applicable = dll_.Get<IsKITEApplicableFn>("IsKITEApplicable");
    const auto force = dll_.Get<IsKITEToBeForceAppliedFn>("IsKITEToBeForceApplied");
    const auto registry = [&](const char* text) {
        version.SetString(text);
        return dll_.Get<GetTwSlipstreamFn>("GetTwSlipstream")(33, "kitetest");
    };
    const auto file = [&](const std::string& line) {
        return Trail("GetSlipStreamFromFile", "GetFileVersion() returned " + line + "\r\n");
    };
    const auto at4012 = [&](const char* name) {
        return file("0\r\n" + product / name + " : 33.0.4012.200. Level: 4SlipStream: 12");
    };
    const struct {
        const char* scope;  // null: the lines are whole trails of inner scopes
        std::function<int()> call;
        int answer;
        std::string log;
    } rows[] = {
        {"IsKITEApplicable", [&] { return applicable(5, ini); }, 1,
         "Applicability = R3,,R5\r\nSlipstream = 5\r\nReturn value : 1\r\n"},
        {"IsKITEApplicable", [&] { return applicable(0, o + "\\none.ini"); }, 0,
         "Applicability = \r\nSlipstream = 0\r\nReturn value : 0\r\n"},
        {"IsKITEToBeForceApplied", [&] { return force(p.c_str()); }, 1, "Return value = 1\r\n"},
        {"IsKITEToBeForceApplied", [&] { return force(o.c_str()); }, 0, "Return value = 0\r\n"},
        {"GetTwSlipstream", [&] { return registry("33.012.200"); }, 12,
         "TW Version: 33.012.200, SlipStream: 12\r\n"},
        {"GetTwSlipstream", [&] { return registry("33"); }, -1,
         "TW Version: 33, too short for a SlipStream\r\n"},
        {nullptr, [&] { return level_(p.c_str()); }, 12,
         at4012("tww.exe") + at4012("BASECORE.DLL") + at4012("Options.DLL")},
        {nullptr, [&] { return level_(o.c_str()); }, -1, file("2") + file("2") + file("2")},
    };
    for (const auto& row : rows) {
        ClearLog();
        EXPECT_EQ(row.call(), row.answer) << row.log;
        EXPECT_EQ(ReadMaskedLog(), row.scope ? Trail(row.scope, row.log) : row.log);
    }
    const std::pair<std::string, std::string> printed[] = {
        {"applicable 5 " + Quote(ini),
         "IsKITEApplicable(5, " + ini + ") = 1 (the package applies to this release)"},
        {"force " + Quote(o), "IsKITEToBeForceApplied(" + o + ") = 0 (no force-apply marker)"},
        {"slipstream " + Quote(p),
         "GetTwSlipstream2(" + p + ") = 12 (the release level of the product files)"},
    };
    for (const auto& [arguments, line] : printed) {
        const auto result =
            kitetest::RunProcess(Quote(kitetest::ExeFolder() + "\\kitehost.exe") + " " + arguments);
        EXPECT_EQ(result.exitCode, 0u) << arguments;
        EXPECT_EQ(result.output, line + "\r\n");
    }
}

// Real programs: kitechild copied under the product's names. A filter is a plain prefix.
TEST_F(ExportsTest, CountsRunningProgramsByNameAndFolder) {
    const auto count = dll_.Get<GetCountOfTwInstancesFn>("GetCountOfTwInstances");
    kitetest::TempFolder folder("count");
    std::vector<std::unique_ptr<kitetest::HeldProgram>> running;
    for (const char* name : {"Apps\\tww.exe", "Apps2\\TWW32.EXE", "Other\\twwx.exe"}) {
        kitetest::CreateFolders(folder / std::string(name).substr(0, 5));
        kitetest::CopyFileTo(kitetest::HeldProgram::ProgramPath(), folder / name);
        running.push_back(std::make_unique<kitetest::HeldProgram>());
        running.back()->Start(folder / name);
    }
    EXPECT_EQ(count(nullptr), 2);
    const std::pair<std::string, int> rows[] = {
        {folder / "Apps\\", 2}, {folder / "Apps2", 1}, {folder.path().substr(2) + "\\Apps", 2}};
    for (const auto& row : rows) EXPECT_EQ(count(row.first.c_str()), row.second) << row.first;
}

}  // namespace
