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

}  // namespace kite
