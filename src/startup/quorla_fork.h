// fork of a process on the library. The child has one thread, the one that forked; any lock
// that another thread (the background thread included) held at that moment would stay held
// for good, and the data behind it could be half-written. So the prepare handler takes every
// lock the child could need, in the allocator's lock order, and both sides give them back:
//
//   mutex_enable -> mutex_registry -> mutex_umap -> each heap's page-group mutex_wait_release,
//   then its queue's mutex_thread and per-CPU ring locks -> each 128-byte pool (mutex_pool,
//   mutex_wait_release, its inbox) -> each page supply (mutex_group, mutex_wait_release, its
//   inbox) -> the root pool -> the region cache's mutex_push and queue -> g_mutex_mmap
//
// mutex_enable comes first because pthread_create, held under it, allocates.
//
// The background thread does not come along. The child forgets it and, if the parent had
// one, asks its next malloc to start its own: the child inherits the parent's stock of
// prepared regions and its waiting regions, and only a background thread gives them back.
#pragma once

namespace quorla {

void memory_fork_prepare();
void memory_fork_parent();
void memory_fork_child();
// pthread_atfork with the three above; once, from the static initialiser.
void memory_fork_register();

}  // namespace quorla
