// A file held open without sharing by another process (kiteholder.exe) for one scope.
#pragma once

#include <windows.h>

#include <string>

namespace kitetest {

class HeldFile {
  public:
    explicit HeldFile(const std::string& path);
    ~HeldFile();  // lets go of the file and waits for the holder to end
    HeldFile(const HeldFile&) = delete;
    HeldFile& operator=(const HeldFile&) = delete;

  private:
    HANDLE process_ = nullptr;
    HANDLE input_ = nullptr;  // closing it tells the holder to let go
};

}  // namespace kitetest
