#include "cloud/directory/part_file.h"

#include <winioctl.h>

#include <algorithm>
#include <atomic>
#include <vector>

#include "cloud/directory/directory_item.h"
#include "cloud/directory/range_writer.h"

namespace tarnd {
namespace {

constexpr std::wstring_view PART_LEAD = L".~tarnd-";
constexpr std::wstring_view PART_TAIL = L".part";
constexpr uint64_t PART_MIN_AGE = 600ull * 10'000'000; /* ten minutes, in 100 ns */

/* MinGW's headers do not have the call that shares blocks. */
constexpr DWORD DUPLICATE_EXTENTS =
    CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 209, METHOD_BUFFERED, FILE_WRITE_DATA);
struct DuplicateExtents {
  HANDLE source;
  LARGE_INTEGER source_offset;
  LARGE_INTEGER target_offset;
  LARGE_INTEGER bytes;
};
constexpr uint64_t CLONED_AT_ONCE = uint64_t{1} << 30; /* below the call's limit of 4 GiB */

std::wstring new_part(const std::wstring& target) {
  static std::atomic<unsigned> count = 0;
  LARGE_INTEGER now;
  QueryPerformanceCounter(&now);
  return target.substr(0, target.rfind(L'\\') + 1)
      .append(PART_LEAD)
      .append(std::to_wstring(GetCurrentProcessId()) + L'-' + std::to_wstring(now.QuadPart) + L'-' +
              std::to_wstring(++count))
      .append(PART_TAIL);
}

FileHandle open_part(const std::wstring& place, DWORD disposition) {
  return FileHandle(CreateFileW(place.c_str(), GENERIC_READ | GENERIC_WRITE | DELETE,
                                FILE_SHARE_READ, nullptr, disposition, FILE_ATTRIBUTE_NORMAL,
                                nullptr));
}

bool set_size(HANDLE file, uint64_t size) {
  FILE_END_OF_FILE_INFO info = {};
  info.EndOfFile.QuadPart = static_cast<LONGLONG>(size);
  return SetFileInformationByHandle(file, FileEndOfFileInfo, &info, sizeof info) != 0;
}

/* Ends a copy whose caller does not want it any more. */
DWORD CALLBACK go_on(LARGE_INTEGER, LARGE_INTEGER, LARGE_INTEGER, LARGE_INTEGER, DWORD, DWORD,
                     HANDLE, HANDLE, LPVOID context) {
  return check(*static_cast<const CloudContext*>(context)).ok() ? PROGRESS_CONTINUE
                                                                : PROGRESS_CANCEL;
}

}  // namespace

bool is_part(std::wstring_view name) {
  return name.starts_with(PART_LEAD) && name.ends_with(PART_TAIL);
}

bool is_leftover(const LARGE_INTEGER& written) {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  return static_cast<uint64_t>(written.QuadPart) + PART_MIN_AGE <=
         join(now.dwHighDateTime, now.dwLowDateTime);
}

void remove_parts(const std::wstring& folder) {
  WIN32_FIND_DATAW found;
  const std::wstring pattern = folder + L'\\' + std::wstring(PART_LEAD) + L'*';
  const HANDLE search = FindFirstFileW(pattern.c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) {
    return;
  }
  do {
    if (is_part(found.cFileName)) {
      DeleteFileW((folder + L'\\' + found.cFileName).c_str());
    }
  } while (FindNextFileW(search, &found) != 0);
  FindClose(search);
}

PartFile::PartFile(const std::wstring& target) : place_(new_part(target)) {}

PartFile::~PartFile() {
  file_.close();
  if (!place_.empty()) {
    DeleteFileW(place_.c_str());
  }
}

CloudResult PartFile::create() {
  file_ = open_part(place_, CREATE_NEW);
  return file_.valid() ? CloudResult{} : last_result();
}

CloudResult PartFile::create_copy(const CloudContext& context, const std::wstring& source_place,
                                  HANDLE source, uint64_t size, uint64_t clone_grain) {
  if (clone_grain != 0) {
    const CloudResult created = create();
    if (!created.ok() || clone(source, size, clone_grain)) {
      return created;
    }
    file_.close();
    DeleteFileW(place_.c_str());
  }
  CloudContext copied = context;
  if (CopyFileExW(source_place.c_str(), place_.c_str(), go_on, &copied, nullptr,
                  COPY_FILE_FAIL_IF_EXISTS) == 0) {
    const DWORD code = GetLastError();
    const CloudResult wanted = check(context);
    return wanted.ok() ? result_of_windows(code) : wanted;
  }
  file_ = open_part(place_, OPEN_EXISTING);
  return file_.valid() ? CloudResult{} : last_result();
}

/*
 * The system wants whole blocks; the last one may reach past the end of both files, which must be
 * equally long and both sparse or neither.
 */
bool PartFile::clone(HANDLE source, uint64_t size, uint64_t grain) {
  DWORD bytes = 0;
  FILE_BASIC_INFO info;
  if (GetFileInformationByHandleEx(source, FileBasicInfo, &info, sizeof info) == 0) {
    return false;
  }
  if ((info.FileAttributes & FILE_ATTRIBUTE_SPARSE_FILE) != 0) {
    DeviceIoControl(file_.get(), FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &bytes, nullptr);
  }
  if (!set_size(file_.get(), size)) {
    return false;
  }
  const uint64_t end = (size + grain - 1) / grain * grain;
  for (uint64_t offset = 0; offset < end; offset += CLONED_AT_ONCE) {
    DuplicateExtents extents = {
        .source = source, .source_offset = {}, .target_offset = {}, .bytes = {}};
    extents.source_offset.QuadPart = extents.target_offset.QuadPart = static_cast<LONGLONG>(offset);
    extents.bytes.QuadPart = static_cast<LONGLONG>(std::min(CLONED_AT_ONCE, end - offset));
    if (DeviceIoControl(file_.get(), DUPLICATE_EXTENTS, &extents, sizeof extents, nullptr, 0,
                        &bytes, nullptr) == 0) {
      return false;
    }
  }
  return true;
}

CloudResult PartFile::write(const CloudContext& context, Snapshot& content,
                            const std::vector<ByteRange>& ranges) {
  if (!set_size(file_.get(), content.size())) {
    return last_result();
  }
  for (const ByteRange& range : ranges) {
    const CloudResult written = write_range(file_.get(), context, content, range);
    if (!written.ok()) {
      return written;
    }
  }
  return {};
}

void PartFile::keep_attributes(const FILE_BASIC_INFO& replaced) {
  FILE_BASIC_INFO info = {};
  info.CreationTime = replaced.CreationTime;
  info.FileAttributes = replaced.FileAttributes;
  SetFileInformationByHandle(file_.get(), FileBasicInfo, &info, sizeof info);
}

CloudResult PartFile::flush() {
  return FlushFileBuffers(file_.get()) != 0 ? CloudResult{} : last_result();
}

/* A disk whose clock stands still for longer than this is not waited for. */
void PartFile::be_newer_than(uint64_t change_time) {
  constexpr int TRIES = 50;
  FILE_BASIC_INFO info;
  for (int tried = 0; tried < TRIES; tried++) {
    if (GetFileInformationByHandleEx(file_.get(), FileBasicInfo, &info, sizeof info) == 0 ||
        static_cast<uint64_t>(info.ChangeTime.QuadPart) > change_time) {
      return;
    }
    Sleep(1);
    FILE_BASIC_INFO touch = {};
    touch.FileAttributes = info.FileAttributes;
    SetFileInformationByHandle(file_.get(), FileBasicInfo, &touch, sizeof touch);
  }
}

}  // namespace tarnd
