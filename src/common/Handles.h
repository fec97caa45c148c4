// Owners for every platform resource the library acquires. Each owner releases its resource in
// the scope that acquired it, so no early return or exception can leak a handle into the host.
#pragma once

#include "common/Platform.h"

#include <windows.h>
#include <bcrypt.h>
#include <objbase.h>
#include <wininet.h>

#include <memory>
#include <utility>

namespace kite {

template <typename T, typename Traits>
class UniqueResource {
  public:
    UniqueResource() = default;
    explicit UniqueResource(T value) : value_(value) {}
    ~UniqueResource() { reset(); }

    UniqueResource(const UniqueResource&) = delete;
    UniqueResource& operator=(const UniqueResource&) = delete;
    UniqueResource(UniqueResource&& other) noexcept : value_(other.release()) {}
    UniqueResource& operator=(UniqueResource&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }

    T get() const { return value_; }
    bool valid() const { return Traits::IsValid(value_); }
    explicit operator bool() const { return valid(); }

    // For out-parameters of platform calls: releases what is held first.
    T* put() {
        reset();
        return &value_;
    }
    T release() { return std::exchange(value_, Traits::Invalid()); }
    void reset(T value = Traits::Invalid()) {
        if (Traits::IsValid(value_)) Traits::Close(value_);
        value_ = value;
    }

  private:
    T value_ = Traits::Invalid();
};

struct KernelHandleTraits {
    static HANDLE Invalid() { return nullptr; }
    static bool IsValid(HANDLE h) { return h != nullptr && h != INVALID_HANDLE_VALUE; }
    static void Close(HANDLE h) { ::CloseHandle(h); }
};

struct RegKeyTraits {
    static HKEY Invalid() { return nullptr; }
    static bool IsValid(HKEY k) { return k != nullptr; }
    static void Close(HKEY k) { ::RegCloseKey(k); }
};

struct ModuleTraits {
    static HMODULE Invalid() { return nullptr; }
    static bool IsValid(HMODULE m) { return m != nullptr; }
    static void Close(HMODULE m) { ::FreeLibrary(m); }
};

struct InternetTraits {
    static HINTERNET Invalid() { return nullptr; }
    static bool IsValid(HINTERNET h) { return h != nullptr; }
    static void Close(HINTERNET h) { Platform().InternetCloseHandle(h); }
};

struct HashAlgorithmTraits {
    static BCRYPT_ALG_HANDLE Invalid() { return nullptr; }
    static bool IsValid(BCRYPT_ALG_HANDLE h) { return h != nullptr; }
    static void Close(BCRYPT_ALG_HANDLE h) { Platform().BCryptCloseAlgorithmProvider(h, 0); }
};

struct HashTraits {
    static BCRYPT_HASH_HANDLE Invalid() { return nullptr; }
    static bool IsValid(BCRYPT_HASH_HANDLE h) { return h != nullptr; }
    static void Close(BCRYPT_HASH_HANDLE h) { Platform().BCryptDestroyHash(h); }
};

struct CngKeyTraits {
    static BCRYPT_KEY_HANDLE Invalid() { return nullptr; }
    static bool IsValid(BCRYPT_KEY_HANDLE k) { return k != nullptr; }
    static void Close(BCRYPT_KEY_HANDLE k) { Platform().BCryptDestroyKey(k); }
};

struct ViewTraits {
    static void* Invalid() { return nullptr; }
    static bool IsValid(void* v) { return v != nullptr; }
    static void Close(void* v) { ::UnmapViewOfFile(v); }
};

struct LocalMemoryTraits {
    static HLOCAL Invalid() { return nullptr; }
    static bool IsValid(HLOCAL h) { return h != nullptr; }
    static void Close(HLOCAL h) { ::LocalFree(h); }
};

using UniqueHandle = UniqueResource<HANDLE, KernelHandleTraits>;
using UniqueRegKey = UniqueResource<HKEY, RegKeyTraits>;
using UniqueModule = UniqueResource<HMODULE, ModuleTraits>;
using UniqueInternet = UniqueResource<HINTERNET, InternetTraits>;
// A view of a file mapping.
using UniqueView = UniqueResource<void*, ViewTraits>;
// A block the platform allocated with LocalAlloc (security descriptors, for instance).
using UniqueLocal = UniqueResource<HLOCAL, LocalMemoryTraits>;
using UniqueHashAlgorithm = UniqueResource<BCRYPT_ALG_HANDLE, HashAlgorithmTraits>;
using UniqueHash = UniqueResource<BCRYPT_HASH_HANDLE, HashTraits>;
using UniqueCngKey = UniqueResource<BCRYPT_KEY_HANDLE, CngKeyTraits>;

// A heap block whose size the platform names at run time (version information, for instance).
using UniqueBytes = std::unique_ptr<BYTE[]>;

// A COM interface pointer that calls Release once.
template <typename I>
class ComPtr {
  public:
    ComPtr() = default;
    ~ComPtr() { reset(); }
    ComPtr(const ComPtr&) = delete;
    ComPtr& operator=(const ComPtr&) = delete;

    I* get() const { return ptr_; }
    I* operator->() const { return ptr_; }
    explicit operator bool() const { return ptr_ != nullptr; }
    I** put() {
        reset();
        return &ptr_;
    }
    void** put_void() { return reinterpret_cast<void**>(put()); }
    void reset() {
        if (ptr_) ptr_->Release();
        ptr_ = nullptr;
    }

  private:
    I* ptr_ = nullptr;
};

// COM initialised for the current thread until the end of the scope; the matching
// CoUninitialize is made whatever CoInitialize answered.
class ComApartment {
  public:
    ComApartment() { ::CoInitialize(nullptr); }
    ~ComApartment() { ::CoUninitialize(); }
    ComApartment(const ComApartment&) = delete;
    ComApartment& operator=(const ComApartment&) = delete;
};

}  // namespace kite
