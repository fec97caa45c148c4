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

/* Ordinal 1: how many product main programs ("tww.exe", "tww32.exe", in any case) are running;
 * with a folder filter only those whose path starts with it (a trailing backslash is not
 * compared, and a filter without a drive matches on every drive). Null counts all; -1 when the
 * processes cannot be listed. */
int GetCountOfTwInstances(const char* folderFilter);
typedef int (*GetCountOfTwInstancesFn)(const char* folderFilter);

/* Ordinal 2: the release level recorded in "TWVersion" under
 * HKLM\SOFTWARE\Tolvix\Tallowmere\<majorVersion>.0\<suffix>; -1 when the key is missing or
 * the text is too short. */
int GetTwSlipstream(unsigned int majorVersion, const char* suffix);
typedef int (*GetTwSlipstreamFn)(unsigned int majorVersion, const char* suffix);

/* Ordinal 3: the release level shared by "tww.exe" (or "tww32.exe" without it), "BASECORE.DLL"
 * and "Options.DLL" in the install folder; -1 when they differ or cannot be read. */
int GetTwSlipstream2(const char* installFolder);
typedef int (*GetTwSlipstream2Fn)(const char* installFolder);

/* Ordinal 4: applies the package whose manifest XML text is given, as one transaction over the
 * product folder that the manifest's "appdir" names. Returns 0 when every file was placed and
 * registered, 0x80070005 without administrator rights (nothing touched), and 0x80004005 for any
 * failure, after the installation was undone and a force-apply marker left in the product's
 * CriticalFixes folder. A refused package touches nothing and leaves no marker: 0x80096010 when a
 * payload's digest or the manifest's signature does not verify, 0x800B0100 when the machine
 * requires a signed manifest (KiteRequireSignature) and it is not signed, 0x80070666 when a signed
 * manifest names other releases than the installed one. 0x800700AA (ERROR_BUSY) when another
 * installation or recovery of the same product folder runs: nothing touched. */
long InstallKite(const char* manifestXml);
typedef long (*InstallKiteFn)(const char* manifestXml);

/* Ordinal 7: settles an installation of the product folder that was cut short (the host died,
 * the power failed). Before its first change InstallKite writes its whole plan to
 * "<folder>\CriticalFixes\kite_journal.dat"; RecoverKite reads it and undoes what is pending, as
 * a failed installation is undone (so the force-apply marker is left and the host forces the fix
 * next time), or finishes the commit when it had begun. InstallKite does the same for its product
 * folder before it starts. Returns 0 when nothing was pending, 1 when an installation was undone,
 * 2 when its commit was finished, 0x800700AA while another installation of the folder runs, and
 * an HRESULT failure when the journal cannot be read (or the folder is null). */
long RecoverKite(const char* productFolder);
typedef long (*RecoverKiteFn)(const char* productFolder);

/* Ordinal 6: 1 when "<folder>\CriticalFixes\force_apply_kite.dat" exists, else 0. */
int IsKITEToBeForceApplied(const char* folder);
typedef int (*IsKITEToBeForceAppliedFn)(const char* folder);

#ifdef __cplusplus
} /* extern "C" */

/* Ordinal 5: true when the "Slipstreams" list of section "KITEApplicability" in the settings
 * file names the release level.
 *
 * Not a C function, although it is declared extern "C" (only so that its export name is the plain
 * "IsKITEApplicable"): the path is a std::string object passed by value, which the DLL destroys.
 * Host and DLL must therefore be built with the same compiler, standard library and string
 * layout (here: mingw-w64 g++ 12, libstdc++, posix threads); any other host must not call it. */
extern "C" bool IsKITEApplicable(int level, std::string settingsPath);
typedef bool (*IsKITEApplicableFn)(int level, std::string settingsPath);
#endif

#endif /* KITEUPDATE_H */
