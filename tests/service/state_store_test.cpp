/* What the service has on record outlives it; a damaged database says so. */
#include "state/state_store.h"

#include <gtest/gtest.h>

#include <fstream>

#include "ox_errno.h"
#include "test_folder.h"

namespace {

using namespace tarnd;

FileRecord changed_file(int64_t id) {
  FileRecord record;
  record.id = id;
  record.path = "folder/it's \"one\".txt";
  record.moving_to = "elsewhere";
  record.local = "local";
  record.state = {Content::DIRTY, Change::ASIDE};
  record.is_new = record.has_cut = true;
  record.cut = 7;
  record.size = uint64_t{1} << 40;
  record.base = {"base", "version", 99};
  record.store = RegionStore(4);
  record.store.fill(1000);
  record.store.mark_present({1, 3});
  record.store.mark_dirty({10, 20});
  record.sealed = {"aside", 500, record.store};
  return record;
}

TEST(StateStore, GivesBackWhatWasSaved) {
  const TestFolder folder;
  const std::string path = folder / "state.db";
  std::vector<FileRecord> records;
  {
    StateStore store;
    ASSERT_EQ(store.open(path, &records), 0);
    EXPECT_TRUE(records.empty());
    const FileRecord first = changed_file(store.new_id());
    const FileRecord second = changed_file(store.new_id());
    ASSERT_EQ(store.save({&first, &second}, {}, Durability::POWER), 0);
    ASSERT_EQ(store.add_dirty(second.id, {30, 31}, 77), 0);
    ASSERT_EQ(store.save({}, {first.id}, Durability::PROCESS), 0);
  }
  StateStore store;
  ASSERT_EQ(store.open(path, &records), 0);
  ASSERT_EQ(records.size(), 1u);
  const FileRecord& found = records[0];
  const FileRecord saved = changed_file(found.id);
  EXPECT_EQ(found.path, saved.path);
  EXPECT_EQ(found.moving_to, saved.moving_to);
  EXPECT_EQ(found.state, saved.state);
  EXPECT_EQ(found.size, 77u);
  EXPECT_FALSE(found.has_cut) << "a report comes after the cut";
  EXPECT_EQ(found.base.version, "version");
  EXPECT_EQ(found.store.limit(), 1000u);
  EXPECT_TRUE(found.store.present().contains({1, 3}));
  EXPECT_TRUE(found.store.dirty().contains({10, 20}));
  EXPECT_TRUE(found.store.dirty().contains({30, 31}));
  EXPECT_FALSE(found.store.present().contains({3, 4}));
  EXPECT_EQ(found.sealed.size, 500u);
  EXPECT_FALSE(found.sealed.store.dirty().contains({30, 31}));
  EXPECT_GT(store.new_id(), found.id);
}

TEST(StateStore, KnowsADamagedDatabase) {
  const TestFolder folder;
  const std::string path = folder / "state.db";
  std::ofstream(path) << std::string(10'000, 'x');
  std::vector<FileRecord> records;
  StateStore store;
  EXPECT_EQ(store.open(path, &records), OX_EINVAL);
}

}  // namespace
