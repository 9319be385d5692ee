/*
 * bench_tree FOLDER CPUS ROW...: walks the tree that tools/bench has made, once. On this machine
 * FOLDER is a mount; for Windows it is a folder whose "cloud" our drive shows.
 */
#include "tree.h"

namespace {

constexpr int LOOKED_UP = 1000, READ = 1000, MADE = 500;
constexpr size_t LISTED = 10'000, SMALL = 100, PAGE = 4096;
constexpr uint64_t BIG = 64 << 20;

std::string numbered(const char* folder, int number) {
  return std::string(folder) + '/' + std::to_string(number);
}

/* The tree, and the floor below it where there is one. */
struct Trees {
  std::unique_ptr<Tree> tree;
  std::unique_ptr<Tree> floor;
};

/* Nanoseconds of each of `count` calls, in the mean. */
template <class Call>
double each(Tree& tree, int first, int count, Call call) {
  const double seconds = seconds_of([&] {
    for (int i = first; i < first + count; i++) {
      call(tree, i);
    }
  });
  return seconds * 1e9 / count;
}

/* The floor takes files of its own. */
template <class Call>
void row_of_each(Bench& bench, const Trees& trees, const std::string& row, int count, Call call) {
  const std::string over = row + ", over the bare calls under Wine";
  if (!bench.wants_any({row, over})) {
    return;
  }
  const double ours = each(*trees.tree, 0, count, call);
  bench.samples(row, {ours}, {});
  if (trees.floor != nullptr) {
    bench.samples(over, {ours}, {each(*trees.floor, count, count, call)});
  }
}

/* Nanoseconds of a read, in steps through the whole file. */
template <class Read>
double step_through(uint64_t step, Read read) {
  std::vector<char> buffer(step);
  const uint64_t steps = BIG / step;
  const double seconds = seconds_of([&] {
    for (uint64_t off = 0; off < BIG; off += step) {
      read(buffer.data(), off);
    }
  });
  return seconds * 1e9 / static_cast<double>(steps);
}

void read_rows(Bench& bench, Tree& tree) {
  tree.open("/big");
  step_through(1 << 20, [&](char* buffer, uint64_t off) { tree.read(buffer, 1 << 20, off); });
  for (const uint64_t kib : {4, 64, 1024}) {
    const uint64_t step = kib << 10;
    const std::string row = "warm read of 64 MiB, steps of " + std::to_string(kib) + " KiB";
    std::vector<double> ours, bare;
    for (int round = 0; round < 5; round++) {
      ours.push_back(
          step_through(step, [&](char* buffer, uint64_t off) { tree.read(buffer, step, off); }));
      bool is_there = true;
      const double time = step_through(step, [&](char* buffer, uint64_t off) {
        is_there = is_there && tree.read_bare(buffer, step, off);
      });
      bare.insert(bare.end(), is_there ? 1 : 0, time);
    }
    bench.samples(row, ours, {});
    bench.samples(row + ", against the bare call", ours, bare);
  }
}

void all_rows(Bench& bench) {
  const Trees trees = {make_tree(bench), make_floor(bench)};
  row_of_each(bench, trees, "list of 10,000", 1, [](Tree& tree, int /*number*/) {
    must(tree.list("/list") == LISTED, "the listing is whole");
  });
  row_of_each(bench, trees, "list of 10,000 with attributes", 1, [](Tree& tree, int /*number*/) {
    must(tree.list_with_attributes("/list with attributes") == LISTED, "the listing is whole");
  });
  row_of_each(bench, trees, "look at a file not seen before", LOOKED_UP,
              [](Tree& tree, int number) { tree.look_up(numbered("/look", number)); });
  row_of_each(bench, trees, "open, read, close of 100 bytes", READ,
              [](Tree& tree, int number) { tree.read_small(numbered("/read", number), SMALL); });
  const std::string page(PAGE, 'x');
  row_of_each(bench, trees, "create, write, close of 4 KiB", MADE,
              [&](Tree& tree, int number) { tree.make(numbered("/made", number), page); });
  read_rows(bench, *trees.tree);
}

}  // namespace

int main(int argc, char** argv) { return run_rows(argc, argv, all_rows); }
