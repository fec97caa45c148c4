// The DLL is a shell over the static library: nothing is initialised on load, and the exports
// keep no state between calls.
#include <windows.h>

BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID) { return TRUE; }
