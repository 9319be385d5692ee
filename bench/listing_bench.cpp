/*
 * Listings, against the system's own of the same folder and against the bare transfer of the bytes.
 */
#include <windows.h>

#include <filesystem>

#include "bare_exchange.h"
#include "rows.h"
#include "tnv_proto.h"

namespace {

constexpr int ROUNDS = 5;
constexpr size_t MANY = 100'000, FEW = 1000;

std::string folder_of(size_t entries) { return "list" + std::to_string(entries); }

/* Seconds per entry: of tnw_findfirst, which fetches the whole listing, and of the walk after it.
 */
struct Times {
  double first;
  double next;
};

Times list(const Drive& drive, size_t entries) {
  const std::string path = "/" + folder_of(entries);
  tnw_fileinfo entry;
  void* listing = nullptr;
  const double first = seconds_of(
      [&] { listing = tnw_findfirst(drive.handle(), path.c_str(), &entry, "bench", nullptr); });
  must(listing != nullptr, "tnw_findfirst");
  size_t found = 1;
  const double next = seconds_of([&] {
    while (tnw_findnext(listing, &entry) == 0) {
      found++;
    }
  });
  must(found == entries && tnw_findclose(listing) == 0, "the drive lists all entries");
  const auto count = static_cast<double>(entries);
  return {first / count, next / count};
}

double system_listing(const Drive& drive, size_t entries) {
  size_t found = 0;
  const std::string pattern = drive.in_cloud(folder_of(entries)) + "\\*";
  const double seconds = seconds_of([&] {
    WIN32_FIND_DATAA data;
    const HANDLE find = FindFirstFileA(pattern.c_str(), &data);
    must(find != INVALID_HANDLE_VALUE, "FindFirstFile");
    do {
      found++;
    } while (FindNextFileA(find, &data) != 0);
    FindClose(find);
  });
  must(found == entries + 2, "the system lists all entries");
  return seconds / static_cast<double>(entries);
}

double bare_transfer(BareExchange& peer, size_t entries) {
  const auto answer = static_cast<uint32_t>(sizeof(tnv_resphdr) + entries * sizeof(tnw_fileinfo));
  return seconds_of([&] { peer.run_long(TNV_MSG_FIXED, answer); }) / static_cast<double>(entries);
}

double copy_records(const std::vector<tnw_fileinfo>& records) {
  tnw_fileinfo entry;
  const double seconds = seconds_of([&] {
    for (const tnw_fileinfo& record : records) {
      entry = record;
      benchmark::DoNotOptimize(entry);
    }
  });
  return seconds / static_cast<double>(records.size());
}

}  // namespace

void listing_rows(Bench& bench, Drive& drive) {
  const std::string find_next = "listing of 100,000, per entry, against FindNext";
  const std::string receiving = "listing of 100,000, per entry, against bare receiving";
  const std::string growth = "listing per entry, 100,000 entries against 1,000";
  if (!bench.wants_any({find_next, receiving, growth, "tnw_findnext"})) {
    return;
  }
  BareExchange peer(bench.folder() + "\\list.sock");
  const std::vector<tnw_fileinfo> records(MANY);
  std::vector<double> first, next, system, bare, few, copies;
  list(drive, MANY); /* the service's and our first touch of so much memory */
  for (int round = 0; round < ROUNDS; round++) {
    const Times ours = list(drive, MANY);
    first.push_back(ours.first * 1e9);
    next.push_back(ours.next * 1e9);
    system.push_back(system_listing(drive, MANY) * 1e9);
    bare.push_back(bare_transfer(peer, MANY) * 1e9);
    few.push_back(list(drive, FEW).first * 1e9);
    copies.push_back(copy_records(records) * 1e9);
  }
  bench.samples(find_next, first, system);
  bench.samples(receiving, first, bare);
  bench.samples(growth, first, few);
  bench.samples("tnw_findnext", next, copies);
}
