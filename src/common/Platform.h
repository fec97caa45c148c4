// The platform calls whose answers depend on the machine (rights, network, system version) or
// that can fail under an installation (files, processes, downloads) go through this one table.
// The library's code calls Platform().Name(...) instead of ::Name(...); a test replaces an
// entry to supply the platform's answer or to make the n-th call fail, and puts the table back
// afterwards. Entries carry the platform function's own name and signature.
#pragma once

#include <windows.h>
#include <bcrypt.h>
#include <objbase.h>
#include <psapi.h>
#include <shlobj.h>
#include <wininet.h>
#include <urlmon.h>
#include <netlistmgr.h>

namespace kite {

struct PlatformCalls {
    decltype(&::IsUserAnAdmin) IsUserAnAdmin;
    decltype(&::OpenProcessToken) OpenProcessToken;
    decltype(&::GetTokenInformation) GetTokenInformation;
    decltype(&::CreateProcessA) CreateProcessA;
    // Waits for started programs; a test shortens their time limit here.
    decltype(&::WaitForSingleObject) WaitForSingleObject;
    decltype(&::MoveFileA) MoveFileA;
    decltype(&::CopyFileA) CopyFileA;
    // The installation's journal file.
    decltype(&::WriteFile) WriteFile;
    decltype(&::FlushFileBuffers) FlushFileBuffers;
    decltype(&::DeleteFileA) DeleteFileA;
    decltype(&::MoveFileExA) MoveFileExA;
    decltype(&::SHCreateDirectory) SHCreateDirectory;
    decltype(&::CoCreateGuid) CoCreateGuid;
    decltype(&::Sleep) Sleep;
    decltype(&::GetFileVersionInfoSizeA) GetFileVersionInfoSizeA;
    decltype(&::GetFileVersionInfoA) GetFileVersionInfoA;
    decltype(&::VerQueryValueA) VerQueryValueA;
    decltype(&::OpenProcess) OpenProcess;
    // psapi.h names kernel32's K32GetModuleFileNameExA here (Windows 7 and later): no psapi.dll.
    decltype(&::GetModuleFileNameExA) GetModuleFileNameExA;

    // Telemetry and downloads.
    decltype(&::InternetOpenW) InternetOpenW;
    decltype(&::InternetOpenUrlW) InternetOpenUrlW;
    decltype(&::InternetReadFile) InternetReadFile;
    decltype(&::InternetOpenA) InternetOpenA;
    decltype(&::InternetConnectA) InternetConnectA;
    decltype(&::HttpOpenRequestA) HttpOpenRequestA;
    decltype(&::HttpSendRequestA) HttpSendRequestA;
    decltype(&::HttpEndRequestA) HttpEndRequestA;
    decltype(&::CoCreateInstance) CoCreateInstance;
    // INetworkListManager::GetConnectivity on the given manager.
    HRESULT (*GetConnectivity)(INetworkListManager* manager, NLM_CONNECTIVITY* connectivity);
    decltype(&::VerifyVersionInfoW) VerifyVersionInfoW;
    // Looked up by name in kernel32, as systems without it exist; null where it is missing.
    decltype(&::IsWow64Process) IsWow64Process;
    decltype(&::LoadLibraryA) LoadLibraryA;
    // mscoree.dll's CLRCreateInstance; the caller has mscoree.dll loaded.
    HRESULT(WINAPI* CLRCreateInstance)(REFCLSID clsid, REFIID riid, LPVOID* object);

    // The check of a signed manifest (CNG): the digest of its text, each trusted key, the
    // verification.
    decltype(&::BCryptOpenAlgorithmProvider) BCryptOpenAlgorithmProvider;
    decltype(&::BCryptCreateHash) BCryptCreateHash;
    decltype(&::BCryptHashData) BCryptHashData;
    decltype(&::BCryptFinishHash) BCryptFinishHash;
    decltype(&::BCryptImportKeyPair) BCryptImportKeyPair;
    decltype(&::BCryptVerifySignature) BCryptVerifySignature;
    decltype(&::BCryptDestroyKey) BCryptDestroyKey;
};

// The process's table; it starts out with the real platform functions.
PlatformCalls& Platform();

}  // namespace kite
