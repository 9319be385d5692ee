/* One exchange through an instance's pool: what cannot be begun is not waited for. */

#include "tnw_dll/tnw_exchange.h"

#include <gtest/gtest.h>

#include "ox_errno.h"
#include "process_state.h"

namespace {

bool events_fail = false;
int events_made = 0;

HANDLE WINAPI create_or_fail(SECURITY_ATTRIBUTES* security, BOOL manual, BOOL set,
                             const char* name) {
  /* Looked up each time: a static would be guarded by a lock, which makes an event. */
  const auto system_create = reinterpret_cast<decltype(&CreateEventA)>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("kernel32.dll"), "CreateEventA")));
  if (events_fail) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  events_made++;
  return system_create(security, manual, set, name);
}

}  // namespace

/* The linker takes this in the place of the import library's. */
extern "C" {
decltype(&CreateEventA) __imp_CreateEventA = create_or_fail;
}

namespace {

class Call : public testing::Test {
 protected:
  Call() { tni.tni_tpool = ox_tpool_create_external("calls", nullptr, nullptr, 0, 0, 0, 1); }
  ~Call() override { ox_destroy_tpool(tni.tni_tpool, 0); }

  /* The error number of an exchange whose job never runs. */
  ox_u32 exchange() {
    tnv_msg msg = {};
    msg.hdr.hdr_len = TNV_MSG_FIXED;
    tnv_resp resp = {};
    resp.rhdr.rhdr_errno = 77;
    tnw_exchange(&tni, tnw_async_send_msg, &msg, &resp, nullptr);
    return resp.rhdr.rhdr_errno;
  }

  tnw_tninstance tni = {};
};

}  // namespace

TEST_F(Call, ThatCannotBeQueuedGivesItsErrorAndClosesItsEvent) {
  tni.tni_tpool->tp_flags |= OX_TPOOL_FL_DRAIN; /* refuses every thread but its own workers */
  EXPECT_EQ(exchange(), static_cast<ox_u32>(OX_EINVAL));
  const size_t before = fresh_handle();
  const int made_before = events_made;
  for (int i = 0; i < 10; i++) {
    EXPECT_EQ(exchange(), static_cast<ox_u32>(OX_EINVAL));
  }
  EXPECT_EQ(events_made, made_before + 10);
  EXPECT_EQ(fresh_handle(), before);
}

TEST_F(Call, WithoutAnEventIsNotQueued) {
  events_fail = true;
  EXPECT_EQ(exchange(), static_cast<ox_u32>(OX_ENOMEM));
  events_fail = false;
  EXPECT_EQ(tni.tni_tpool->tp_qlen, 0u);
  EXPECT_EQ(tni.tni_tpool->tp_cur_count, 0u);
}
