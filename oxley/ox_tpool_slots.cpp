/*
 * Slots of the workers and the blocks behind them.
 *
 * The statistics and the private records have the same shape; what is done to one is done to the
 * other through a view of it.
 */
#include <algorithm>
#include <cerrno>

#include "ox_logging.h"
#include "ox_tpool_internal.h"
#include "ox_util.h"

namespace {

/* One of the two records, with the words that its log lines use. */
struct SlotView {
  ox_lock_t* lock;
  ox_u64* bits;
  void** blocks;
  ox_u32* size;
  const char* array_word;
  const char* lock_word;
  const char* slot_word;
};

SlotView stats_of(ox_tpool_t* tp) {
  ox_stats_t& s = tp->tp_stats;
  return {&s.oxst_lock, s.oxst_slots, &s.oxst_stats, &s.oxst_size, "stats", "stats", "STAT"};
}

SlotView priv_of(ox_tpool_t* tp) {
  ox_priv_t& p = tp->tp_priv;
  return {&p.ox_lock, p.ox_slots, &p.ox_priv, &p.ox_size, "tppriv", "priv", "PRIV"};
}

bool init_view(const ox_tpool_t* tp, const SlotView& view, ox_u32 size, ox_u32 max_threads) {
  const ox_u32 bytes = size * max_threads; /* a 32-bit product, as ox_tpool.h says */
  *view.size = size;
  if (bytes != 0) {
    *view.blocks = ox_zalloc(bytes);
    if (*view.blocks == nullptr) {
      OX_LOG(OX_ERROR_LEVEL, errno, "cannot allocate %d bytes for thread pool [%s] %s",
             static_cast<int>(bytes), tp->tp_name, view.array_word);
      return false;
    }
  }
  const int rc = ox_init_lock(view.lock);
  if (rc != 0) {
    OX_LOG(OX_ERROR_LEVEL, rc, "cannot initialize thread pool %s lock", view.lock_word);
    ox_free_safe(*view.blocks);
    return false;
  }
  return true;
}

void free_view(const SlotView& view) {
  (void)ox_deinit_lock(view.lock);
  ox_free_safe(*view.blocks);
}

/* How many whole blocks the array holds, also where the product of its size has wrapped: a block
 * past the array's end must never be given to a worker. */
ox_u32 blocks_that_fit(ox_u32 size, ox_u32 max_threads) {
  return size != 0 ? size * max_threads / size : max_threads;
}

ox_u64& word_of(const SlotView& view, ox_u32 slot) { return view.bits[slot / 64]; }
ox_u64 bit_of(ox_u32 slot) { return ox_u64{1} << slot % 64; }

int take_lowest(const SlotView& view, ox_u32 limit) {
  for (ox_u32 slot = 0; slot < limit; ++slot) {
    if ((word_of(view, slot) & bit_of(slot)) == 0) {
      word_of(view, slot) |= bit_of(slot);
      return static_cast<int>(slot);
    }
  }
  return -1;
}

int get_slot(const ox_tpool_t* tp, const SlotView& view) {
  OX_ASSERT_HELD(&tp->tp_lock);
  int slot = -1;
  if (ox_lock(view.lock) == 0) {
    slot = take_lowest(view, std::min<ox_u32>(tp->tp_max_threads, OX_TPOOL_MAX_SLOTS));
    (void)ox_unlock(view.lock);
  }
  if (slot < 0) {
    OX_LOG(OX_WARN_LEVEL, 0, "Thread pool [%s] no %s slots available.", tp->tp_name,
           view.slot_word);
  } else {
    OX_LOG_DEBUG(5, "Thread pool [%s] %s SLOT %d alloted.", tp->tp_name, view.slot_word, slot);
  }
  return slot;
}

void put_slot(const ox_tpool_t* tp, const SlotView& view, int slot) {
  OX_ASSERT_HELD(&tp->tp_lock);
  if (slot < 0 || ox_lock(view.lock) != 0) {
    return;
  }
  const auto index = static_cast<ox_u32>(slot);
  word_of(view, index) &= ~bit_of(index);
  (void)ox_unlock(view.lock);
  OX_LOG_DEBUG(5, "Thread pool [%s] %s SLOT %d freed.", tp->tp_name, view.slot_word, slot);
}

void* block_of(const ox_tpool_t* tp, const SlotView& view, int slot) {
  if (slot < 0 || static_cast<ox_u32>(slot) >= tp->tp_nblocks || *view.blocks == nullptr) {
    return nullptr;
  }
  return static_cast<char*>(*view.blocks) + static_cast<size_t>(slot) * *view.size;
}

}  // namespace

bool ox_tpool_init_blocks(ox_tpool_t* tp, ox_u32 stat_size, ox_u32 priv_size, ox_u32 max_threads) {
  if (!init_view(tp, stats_of(tp), stat_size, max_threads)) {
    return false;
  }
  if (!init_view(tp, priv_of(tp), priv_size, max_threads)) {
    free_view(stats_of(tp));
    return false;
  }
  tp->tp_nblocks =
      std::min({max_threads, ox_u32{OX_TPOOL_MAX_SLOTS}, blocks_that_fit(stat_size, max_threads),
                blocks_that_fit(priv_size, max_threads)});
  return true;
}

void ox_tpool_free_blocks(ox_tpool_t* tp) {
  free_view(stats_of(tp));
  free_view(priv_of(tp));
}

int ox_getstat_slot(ox_tpool_t* tp) { return get_slot(tp, stats_of(tp)); }
int ox_getpriv_slot(ox_tpool_t* tp) { return get_slot(tp, priv_of(tp)); }
void ox_putstat_slot(ox_tpool_t* tp, int slot) { put_slot(tp, stats_of(tp), slot); }
void ox_putpriv_slot(ox_tpool_t* tp, int slot) { put_slot(tp, priv_of(tp), slot); }
void* ox_tpool_stat_block(ox_tpool_t* tp, int slot) { return block_of(tp, stats_of(tp), slot); }
void* ox_tpool_priv_block(ox_tpool_t* tp, int slot) { return block_of(tp, priv_of(tp), slot); }
