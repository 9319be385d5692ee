/*
 * Bytes that end where their page does: a byte that is read or written behind them ends the test.
 */
#ifndef PAGE_END_H
#define PAGE_END_H

#include <windows.h>

#include <cstring>
#include <string>

class AtPageEnd {
 public:
  explicit AtPageEnd(const void* bytes, size_t size) {
    pages_ = static_cast<char*>(
        VirtualAlloc(nullptr, ROOM + 0x1000, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    DWORD before = 0;
    VirtualProtect(pages_ + ROOM, 0x1000, PAGE_NOACCESS, &before);
    at = pages_ + ROOM - size;
    memcpy(at, bytes, size);
  }
  explicit AtPageEnd(const std::string& bytes) : AtPageEnd(bytes.data(), bytes.size()) {}
  ~AtPageEnd() { VirtualFree(pages_, 0, MEM_RELEASE); }
  AtPageEnd(const AtPageEnd&) = delete;
  AtPageEnd& operator=(const AtPageEnd&) = delete;

  /* The bytes as a record or as an array of them. */
  template <class Record>
  Record* as() const {
    return reinterpret_cast<Record*>(at);
  }

  char* at;

 private:
  static constexpr size_t ROOM = 0x10000;
  char* pages_;
};

#endif
