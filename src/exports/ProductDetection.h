// The installed product's release level ("slipstream"), read from the version resources of its
// files or from its registry key, and the count of its running main programs.
#pragma once

#include <string>

namespace kite {

constexpr const char* kMainProgram = "tww.exe";
constexpr const char* kMainProgram32 = "tww32.exe";
constexpr const char* kCoreLibrary = "BASECORE.DLL";
constexpr const char* kFeatureLibrary = "Options.DLL";
constexpr const char* kVersionValue = "TWVersion";

// The slipstream (0 to 999) of "<folder>\<fileName>", or -1 when its version cannot be read.
int GetSlipStreamFromFile(const char* folder, const char* fileName);

// "SOFTWARE\Tolvix\Tallowmere\<major>.0\<suffix>", the product's version key.
std::string TwVersionKey(unsigned int majorVersion, const std::string& suffix);

// The number held by the three characters from position 3 of a "TWVersion" text (fewer when
// the text is shorter than 6). A text of fewer than 3 characters has no such position:
// std::out_of_range.
int SlipstreamOfVersionText(const std::string& text);

// Whether a process's executable name is one of the product's main programs, in any case.
bool IsTwProgramName(const char* exeName);

// The folder filter's plain prefix rule: a trailing backslash is not compared, and a filter
// without a drive ("\Apps") skips the module path's drive, so "C:\Tw" also matches "C:\Tw2\".
bool ModulePathMatchesFilter(const char* modulePath, const char* filter);

}  // namespace kite
