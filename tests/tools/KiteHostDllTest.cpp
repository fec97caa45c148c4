#include "support/KiteTest.h"

namespace {

using kitetest::Quote;

// What each export answers, as kitehost prints it (the values come from the DLL it loads).
class KiteHostTest : public kitetest::LogTest {};

TEST_F(KiteHostTest, PrintsWhatTheExportsAnswer) {
    kitetest::TempFolder product("product");
    kitetest::WriteFileBytes(product / "kite.ini", "[KITEApplicability]\r\nSlipstreams=R3,R5\r\n");
    kitetest::CopyFileTo(kitetest::FixturePath("tw-program-4012.exe"), product / "tww.exe");
    kitetest::CopyFileTo(kitetest::FixturePath("tw-library-4012.dll"), product / "BASECORE.DLL");
    kitetest::CopyFileTo(kitetest::FixturePath("tw-library-4012.dll"), product / "Options.DLL");
    const std::string p = product.path(), ini = product / "kite.ini";
    const std::pair<std::string, std::string> rows[] = {
        {"applicable 5 " + Quote(ini),
         "IsKITEApplicable(5, " + ini + ") = 1 (the package applies to this release)"},
        {"force " + Quote(p), "IsKITEToBeForceApplied(" + p + ") = 0 (no force-apply marker)"},
        {"slipstream " + Quote(p),
         "GetTwSlipstream2(" + p + ") = 12 (the release level of the product files)"},
    };
    for (const auto& row : rows) {
        const kitetest::ProcessResult result =
            kitetest::RunProcess(Quote(kitetest::ExeFolder() + "\\kitehost.exe") + " " + row.first);
        EXPECT_EQ(result.exitCode, 0u) << row.first;
        EXPECT_EQ(result.output, row.second + "\r\n");
    }
}

}  // namespace
