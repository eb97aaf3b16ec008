// The coarse steady clock word and the bounded pause towards a deadline.
#include "foundation/quorla_pause.h"

namespace quorla {

// Written without a lock by whoever refreshes it; a stale value is acceptable to every reader.
time_t g_timet_millisecond_now_steady = 0;

void thread_pause_until_steady_nanosecond_limit(unsigned long long limit) {
  unsigned long long now = get_steady_nanosecond();
  if (now >= limit) return;
  unsigned long long end = now + k_uint_pause_nanosecond;
  if (limit < end) end = limit;
  store_fence();
  spin_until_steady_nanosecond(end);
  load_fence();
}

}  // namespace quorla
