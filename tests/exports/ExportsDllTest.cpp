#include "KITEUpdate.h"

#include "support/KiteTest.h"

namespace {

using namespace kitetest;

struct ExportsTest : LogTest {
    // A new folder of the product files at the given builds (0: missing) under their names.
    std::string Product(std::vector<int> builds) {
        const std::string folder = folder_ / ("product" + std::to_string(++products_));
        const char* names[] = {"tww.exe", "tww32.exe", "BASECORE.DLL", "Options.DLL"};
        CreateFolders(folder + "\\CriticalFixes");
        for (int i = 0; i < 4; ++i) {
            const std::string build = std::to_string(builds[i]);
            const std::string fixture =
                i < 2 ? "tw-program-" + build + ".exe" : "tw-library-" + build + ".dll";
            if (builds[i]) CopyFileTo(FixturePath(fixture), folder + "\\" + names[i]);
        }
        return folder;
    }
    int products_ = 0;
    KiteDll dll_;
};

// A product's three files are all read and must agree; tww32.exe counts only without tww.exe.
TEST_F(ExportsTest, AnswersAndLogLines) {
    const std::string p = Product({4012, 0, 4012, 4012}), o = Product({0, 0, 4012, 0});
    WriteFileBytes(p + "\\CriticalFixes\\force_apply_kite.dat", "");
    const std::string ini = o + "\\kite.ini", key = "SOFTWARE\\Tolvix\\Tallowmere\\33.0\\kitetest";
    WriteFileBytes(ini, "[KITEApplicability]\r\nSlipstreams=R3,,R5\r\n");
    RegistryKey versionKey(key);
    RegistryValue version(key, "TWVersion");
    const auto slipstream = dll_.Get<GetTwSlipstreamFn>("GetTwSlipstream");
    const auto level = dll_.Get<GetTwSlipstream2Fn>("GetTwSlipstream2");
    const std::vector<int> answers = {
        dll_.Get<IsKITEApplicableFn>("IsKITEApplicable")(0, o + "\\none.ini"),
        dll_.Get<IsKITEToBeForceAppliedFn>("IsKITEToBeForceApplied")(p.c_str()),
        (version.SetString("33.012.200"), slipstream(33, "kitetest")),
        (version.SetString("33"), slipstream(33, "kitetest")), level(o.c_str())};
    EXPECT_EQ(answers, (std::vector<int>{0, 1, 12, -1, -1}));
    const std::string unread = Trail("GetSlipStreamFromFile", "GetFileVersion() returned 2\r\n");
    EXPECT_EQ(
        ReadMaskedLog(),
        Trail("IsKITEApplicable", "Applicability = \r\nSlipstream = 0\r\nReturn value : 0\r\n") +
            Trail("IsKITEToBeForceApplied", "Return value = 1\r\n") +
            Trail("GetTwSlipstream", "TW Version: 33.012.200, SlipStream: 12\r\n") +
            Trail("GetTwSlipstream", "TW Version: 33, too short for a SlipStream\r\n") + unread +
            Trail("GetSlipStreamFromFile",
                  "GetFileVersion() returned 0\r\n" + o +
                      "\\BASECORE.DLL : 33.0.4012.200. Level: 4SlipStream: 12\r\n") +
            unread);
    const std::pair<std::string, std::string> printed[] = {
        {"applicable 5 " + Quote(ini),
         "IsKITEApplicable(5, " + ini + ") = 1 (the package applies to this release)"},
        {"force " + Quote(o), "IsKITEToBeForceApplied(" + o + ") = 0 (no force-apply marker)"},
        {"slipstream " + Quote(p),
         "GetTwSlipstream2(" + p + ") = 12 (the release level of the product files)"}};
    for (const auto& [arguments, line] : printed) {
        const auto result = RunProcess(Quote(ExeFolder() + "\\kitehost.exe") + " " + arguments);
        EXPECT_EQ(std::to_string(result.exitCode) + " " + result.output, "0 " + line + "\r\n");
    }
    const auto of = [&](std::vector<int> builds) { return level(Product(builds).c_str()); };
    EXPECT_EQ((std::vector<int>{of({999, 0, 999, 999}), of({0, 4012, 4012, 4012}),
                                of({4013, 4012, 4012, 4012}), of({4012, 0, 4013, 4012}),
                                of({4012, 0, 4012, 4013})}),
              (std::vector<int>{999, 12, -1, -1, -1}));
}

// Real programs: kitechild copied under the product's names. A filter is a plain prefix.
TEST_F(ExportsTest, CountsRunningProgramsByNameAndFolder) {
    const auto count = dll_.Get<GetCountOfTwInstancesFn>("GetCountOfTwInstances");
    HeldProgram running[3], *next = running;
    for (const std::string name : {"Apps\\tww.exe", "Apps2\\TWW32.EXE", "Other\\twwx.exe"}) {
        CreateFolders(folder_ / name.substr(0, 5));
        CopyFileTo(HeldProgram::ProgramPath(), folder_ / name);
        (next++)->Start(folder_ / name);
    }
    const std::string apps = folder_ / "Apps";
    EXPECT_EQ((std::vector<int>{count(nullptr), count((apps + "\\").c_str()),
                                count((apps + "2").c_str()), count(apps.substr(2).c_str())}),
              (std::vector<int>{2, 2, 1, 2}));
}

}  // namespace
