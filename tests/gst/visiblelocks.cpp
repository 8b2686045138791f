// GLib makes its locks of futexes, which the thread sanitizer does not see. These functions stand in front of
// GLib's and tell the sanitizer.

#include <dlfcn.h>
#include <glib.h>
#include <sanitizer/tsan_interface.h>

#pragma GCC visibility push(default)
#define ORIGINAL(name) \
  static auto* const original = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name))

extern "C" void g_mutex_lock(GMutex* mutex) {
  ORIGINAL(g_mutex_lock);
  original(mutex);
  __tsan_acquire(mutex);
}

extern "C" void g_mutex_unlock(GMutex* mutex) {
  ORIGINAL(g_mutex_unlock);
  __tsan_release(mutex);
  original(mutex);
}

extern "C" void g_cond_wait(GCond* condition, GMutex* mutex) {
  ORIGINAL(g_cond_wait);
  __tsan_release(mutex);
  original(condition, mutex);
  __tsan_acquire(mutex);
}
