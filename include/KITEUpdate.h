/* KITEUpdate.dll: applies critical-fix packages to an installed Tallowmere.
 *
 * Load the DLL and call the exports by name or by the ordinal given with each. Every string is
 * NUL-terminated text in the system's ANSI code page. No export throws.
 */
#ifndef KITEUPDATE_H
#define KITEUPDATE_H

#ifdef __cplusplus
#include <string>
extern "C" {
#endif

/* Ordinal 4: applies the package whose manifest XML text is given, as one transaction over the
 * product folder that the manifest's "appdir" names. Returns 0 when every file was placed and
 * registered, 0x80070005 without administrator rights (nothing touched), and 0x80004005 for any
 * failure, after the installation was undone and a force-apply marker left in the product's
 * CriticalFixes folder. */
long InstallKite(const char* manifestXml);
typedef long (*InstallKiteFn)(const char* manifestXml);

/* Ordinal 6: 1 when "<folder>\CriticalFixes\force_apply_kite.dat" exists, else 0. */
int IsKITEToBeForceApplied(const char* folder);
typedef int (*IsKITEToBeForceAppliedFn)(const char* folder);

#ifdef __cplusplus
} /* extern "C" */

/* Ordinal 5: true when the "Slipstreams" list of section "KITEApplicability" in the settings
 * file names the release level. The path is a std::string passed by value and destroyed by the
 * DLL, so only a C++ host built with the same compiler and standard library as the DLL can make
 * this call; it has no C form. */
extern "C" bool IsKITEApplicable(int level, std::string settingsPath);
typedef bool (*IsKITEApplicableFn)(int level, std::string settingsPath);
#endif

#endif /* KITEUPDATE_H */
