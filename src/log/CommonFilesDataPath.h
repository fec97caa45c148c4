// The product's common data folder, which its setup records in the registry. The update log
// lives below it.
#pragma once

#include "common/Handles.h"

#include <memory>
#include <string>
#include <vector>

namespace kite {

constexpr const char* kCommonBranchKey = "Software\\Tolvix\\TallowmereCommon";
constexpr const char* kCommonFilesDataPathValue = "CommonFilesDataPath";

// Reader of the product's parameters under one registry branch.
class ProductParameterReader {
  public:
    static constexpr long kStatusOk = 0;
    static constexpr long kStatusMissing = 3;
    static constexpr long kStatusWrongType = -6;
    static constexpr unsigned long kFirstQueryBytes = 1024;

    // Opens HKLM\Software\Tolvix\TallowmereCommon for reading; none when the key cannot be opened.
    static std::unique_ptr<ProductParameterReader> CreateForCommonBranch();

    // On status 0, *value points at the reader's own buffer, valid until the next query or the
    // release of the reader.
    long GetParameter(const char* name, const char** value);

    const std::string& keyPath() const { return keyPath_; }
    long status() const { return status_; }

  private:
    ProductParameterReader(UniqueRegKey key, std::string keyPath, REGSAM access);
    long Query(const char* name, DWORD* type, DWORD* bytes);

    UniqueRegKey key_;
    std::string keyPath_;
    long status_ = kStatusOk;
    std::vector<char> buffer_;
    [[maybe_unused]] REGSAM access_;
};

constexpr std::size_t kWorkAreaBytes = 520;
constexpr std::size_t kPathChars = 260;

// Copies the common files data path into the second half of a zeroed 520-byte work area and
// returns that half, or nullptr when any step fails (a value of 260 characters or more included).
char* GetCommonFilesDataPath(char* workArea);

// The common files data path kept between lookups: the registry is read again only once a change
// under the key has been notified (or when no notification could be armed, as when the key is
// missing). Not synchronised: its owner serialises the calls.
class CommonFilesDataPathWatch {
  public:
    // The folder, or nullptr when the lookup fails; valid until the next call.
    const char* Current();

  private:
    bool Unchanged() const;
    void Refresh();

    UniqueRegKey key_;
    UniqueHandle changed_;
    bool armed_ = false;
    char workArea_[kWorkAreaBytes] = {};
    const char* folder_ = nullptr;
};

}  // namespace kite
