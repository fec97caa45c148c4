/* Asks KITEUpdate.dll whether the fix is to be forced for a product folder, as a host updater
 * does before it installs, once before and once after the force-apply marker is left there.
 * Prints both answers; exits 0 when they are 0 and 1, else 1.
 *
 *   kiteforcecheck <product folder>
 */
#include <stdio.h>
#include <windows.h>

#include "KITEUpdate.h"

int main(int argc, char** argv) {
    char markerFolder[MAX_PATH];
    char marker[MAX_PATH];
    HANDLE file;
    int before, after;

    if (argc != 2) {
        fprintf(stderr, "usage: kiteforcecheck <product folder>\n");
        return 2;
    }
    before = IsKITEToBeForceApplied(argv[1]);
    /* What an undone installation leaves: an empty marker in the product's CriticalFixes. */
    snprintf(markerFolder, sizeof markerFolder, "%s\\CriticalFixes", argv[1]);
    snprintf(marker, sizeof marker, "%s\\force_apply_kite.dat", markerFolder);
    CreateDirectoryA(markerFolder, NULL);
    file = CreateFileA(marker, GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, NULL);
    if (file != INVALID_HANDLE_VALUE) CloseHandle(file);
    after = IsKITEToBeForceApplied(argv[1]);
    printf("without marker: %d\nwith marker: %d\n", before, after);
    return before == 0 && after == 1 ? 0 : 1;
}
