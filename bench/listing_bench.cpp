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

struct Listing {
  Listing(const Drive& drive, const std::string& path) {
    int err = 0;
    handle = tnw_findfirst(drive.handle(), path.c_str(), &entry, "bench", &err);
    must(handle != nullptr && err == 0, "tnw_findfirst");
  }
  ~Listing() { must(tnw_findclose(handle) == 0, "tnw_findclose"); }
  Listing(const Listing&) = delete;

  void* handle;
  tnw_fileinfo entry = {};
};

std::string folder_of(size_t entries) { return "list" + std::to_string(entries); }

/* Seconds per entry until tnw_findfirst returns. */
double find_first(const Drive& drive, size_t entries) {
  const std::string path = "/" + folder_of(entries);
  Listing* listing = nullptr;
  const double seconds = seconds_of([&] { listing = new Listing(drive, path); });
  delete listing;
  return seconds / static_cast<double>(entries);
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

/* Seconds per entry of a walk through a listing that is there. */
double find_next(const Drive& drive, size_t entries) {
  const Listing listing(drive, "/" + folder_of(entries));
  tnw_fileinfo entry;
  size_t found = 1;
  const double seconds = seconds_of([&] {
    while (tnw_findnext(listing.handle, &entry) == 0) {
      found++;
    }
  });
  must(found == entries, "the drive lists all entries");
  return seconds / static_cast<double>(entries);
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
  const std::string prefix = "listing of 100,000, per entry";
  const std::string growth = "listing per entry, 100,000 entries against 1,000";
  if (!bench.wants_any({prefix + ", against FindNext", prefix + ", against bare receiving", growth,
                        "tnw_findnext"})) {
    return;
  }
  BareExchange peer(bench.folder() + "\\list.sock");
  const auto ours = [&] { return find_first(drive, 100'000); };
  bench.pair_once(prefix + ", against FindNext", ROUNDS, ours,
                  [&] { return system_listing(drive, 100'000); });
  bench.pair_once(prefix + ", against bare receiving", ROUNDS, ours,
                  [&] { return bare_transfer(peer, 100'000); });
  bench.pair_once(growth, ROUNDS, ours, [&] { return find_first(drive, 1000); });
  const std::vector<tnw_fileinfo> records(100'000);
  bench.pair_once(
      "tnw_findnext", ROUNDS, [&] { return find_next(drive, 100'000); },
      [&] { return copy_records(records); });
}
