#include "log/CommonFilesDataPath.h"

#include <cstring>
#include <new>

namespace kite {

ProductParameterReader::ProductParameterReader(UniqueRegKey key, std::string keyPath, REGSAM access)
    : key_(std::move(key)), keyPath_(std::move(keyPath)), access_(access) {}

std::unique_ptr<ProductParameterReader> ProductParameterReader::CreateForCommonBranch() {
    UniqueRegKey key;
    const LONG opened =
        ::RegOpenKeyExA(HKEY_LOCAL_MACHINE, kCommonBranchKey, 0, KEY_READ, key.put());
    // Any failure leaves no reader, a key reported as deleted (1018) included.
    if (opened != ERROR_SUCCESS) return nullptr;
    return std::unique_ptr<ProductParameterReader>(
        new ProductParameterReader(std::move(key), kCommonBranchKey, KEY_READ));
}

long ProductParameterReader::Query(const char* name, DWORD* type, DWORD* bytes) {
    // One byte more than offered to the platform keeps the text terminated even when the stored
    // value lacks its NUL.
    buffer_.assign(*bytes + 1, '\0');
    return ::RegQueryValueExA(key_.get(), name, nullptr, type,
                              reinterpret_cast<BYTE*>(buffer_.data()), bytes);
}

long ProductParameterReader::GetParameter(const char* name, const char** value) {
    *value = nullptr;
    DWORD type = 0;
    DWORD bytes = kFirstQueryBytes;
    long result = Query(name, &type, &bytes);
    if (result == ERROR_MORE_DATA) {
        bytes *= 2;
        result = Query(name, &type, &bytes);
    }
    if (result == ERROR_FILE_NOT_FOUND) {
        result = kStatusMissing;
    } else if (result == ERROR_SUCCESS && type != REG_SZ) {
        result = kStatusWrongType;
    }
    status_ = result;
    if (result == kStatusOk) *value = buffer_.data();
    return result;
}

char* GetCommonFilesDataPath(char* workArea) {
    try {
        std::unique_ptr<ProductParameterReader> reader =
            ProductParameterReader::CreateForCommonBranch();
        if (!reader) return nullptr;
        const char* value = nullptr;
        if (reader->GetParameter(kCommonFilesDataPathValue, &value) != 0) return nullptr;
        const std::size_t length = std::strlen(value);
        if (length >= kPathChars) return nullptr;
        char* path = workArea + kWorkAreaBytes - kPathChars;
        std::memcpy(path, value, length + 1);
        return path;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

namespace {

// Without it Windows drops an asynchronous notification when the thread that armed it ends; the
// hosts' threads come and go. A platform that refuses the flag gets the plain notification, whose
// early signal only costs one more lookup.
#ifndef REG_NOTIFY_THREAD_AGNOSTIC
#define REG_NOTIFY_THREAD_AGNOSTIC 0x10000000L
#endif
constexpr DWORD kValueChanges = REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET;

}  // namespace

bool CommonFilesDataPathWatch::Unchanged() const {
    return armed_ && ::WaitForSingleObject(changed_.get(), 0) == WAIT_TIMEOUT;
}

const char* CommonFilesDataPathWatch::Current() {
    if (!Unchanged()) Refresh();
    return folder_;
}

void CommonFilesDataPathWatch::Refresh() {
    armed_ = false;
    if (!changed_) changed_.reset(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
    // Armed before the value is read, so that a change made during the read is not missed. The
    // key is opened anew each time: a deleted and recreated key is another key.
    if (changed_ && ::ResetEvent(changed_.get()) &&
        ::RegOpenKeyExA(HKEY_LOCAL_MACHINE, kCommonBranchKey, 0, KEY_READ, key_.put()) ==
            ERROR_SUCCESS) {
        armed_ =
            ::RegNotifyChangeKeyValue(key_.get(), FALSE, kValueChanges | REG_NOTIFY_THREAD_AGNOSTIC,
                                      changed_.get(), TRUE) == ERROR_SUCCESS ||
            ::RegNotifyChangeKeyValue(key_.get(), FALSE, kValueChanges, changed_.get(), TRUE) ==
                ERROR_SUCCESS;
    }
    std::memset(workArea_, 0, sizeof workArea_);
    folder_ = GetCommonFilesDataPath(workArea_);
}

}  // namespace kite
