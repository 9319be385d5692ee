#include "tnw_file_context.h"

#include "ox_util.h"

ox_lock_t tnw_fc_lock;

namespace {

bool has_opens(const tnw_file_context* fc) {
  return fc->fc_rdcnt != 0 || fc->fc_wrcnt != 0 || fc->fc_prcnt != 0 || fc->fc_opening != 0;
}

ox_u32* counter(tnw_file_context* fc, ox_u32 accmode) {
  if ((accmode & TNW_ACC_ANY_WRITE) != 0) {
    return &fc->fc_wrcnt;
  }
  return (accmode & TNW_ACC_READ) != 0 ? &fc->fc_rdcnt : &fc->fc_prcnt;
}

}  // namespace

tnw_file_context* tnw_begin_open(void** slot) {
  ox_lock(&tnw_fc_lock);
  if (*slot == nullptr) {
    *slot = ox_zalloc(sizeof(tnw_file_context));
  }
  auto* fc = static_cast<tnw_file_context*>(*slot);
  if (fc != nullptr) {
    fc->fc_opening++;
  }
  ox_unlock(&tnw_fc_lock);
  return fc;
}

void tnw_count_open(tnw_file_context* fc, ox_u32 accmode) {
  ox_lock(&tnw_fc_lock);
  ++*counter(fc, accmode);
  fc->fc_opening--;
  ox_unlock(&tnw_fc_lock);
}

void tnw_drop_open(void** slot, tnw_file_context* fc) {
  ox_lock(&tnw_fc_lock);
  fc->fc_opening--;
  if (!has_opens(fc) && !fc->fc_kept) {
    ox_free_safe(fc);
    *slot = nullptr;
  }
  ox_unlock(&tnw_fc_lock);
}

void tnw_keep_context(tnw_file_context* fc) {
  ox_lock(&tnw_fc_lock);
  fc->fc_opening--;
  fc->fc_kept = true;
  ox_unlock(&tnw_fc_lock);
}

void tnw_uncount_open(tnw_file_context* fc, ox_u32 accmode) {
  ox_lock(&tnw_fc_lock);
  --*counter(fc, accmode);
  if (!has_opens(fc)) {
    ox_free_safe(fc);
  }
  ox_unlock(&tnw_fc_lock);
}
