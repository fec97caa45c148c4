#include "common/Platform.h"

namespace kite {

namespace {

PlatformCalls RealPlatform() {
    PlatformCalls calls;
    calls.IsUserAnAdmin = ::IsUserAnAdmin;
    calls.OpenProcessToken = ::OpenProcessToken;
    calls.GetTokenInformation = ::GetTokenInformation;
    calls.CreateProcessA = ::CreateProcessA;
    calls.GetFileVersionInfoSizeA = ::GetFileVersionInfoSizeA;
    calls.GetFileVersionInfoA = ::GetFileVersionInfoA;
    calls.VerQueryValueA = ::VerQueryValueA;
    calls.OpenProcess = ::OpenProcess;
    calls.GetModuleFileNameExA = ::GetModuleFileNameExA;
    calls.MoveFileA = ::MoveFileA;
    calls.CopyFileA = ::CopyFileA;
    calls.DeleteFileA = ::DeleteFileA;
    calls.SHCreateDirectory = ::SHCreateDirectory;
    calls.CoCreateGuid = ::CoCreateGuid;
    calls.Sleep = ::Sleep;
    return calls;
}

}  // namespace

PlatformCalls& Platform() {
    static PlatformCalls calls = RealPlatform();
    return calls;
}

}  // namespace kite
