#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "diag_lsm/diag_lsm.h"
#include "diag_lsm/src/StaticMutex.h"

inline namespace tavrik_diag_lsm {

namespace {

constexpr size_t kNameSize = 25;

// Guards everything below; taken before the diagnostics sink's.
StaticMutex wakelock_mutex;
char* wl_name TAVRIK_GUARDED_BY(wakelock_mutex) = nullptr;
int fd_wakelock TAVRIK_GUARDED_BY(wakelock_mutex) = -1;
int fd_wakeunlock TAVRIK_GUARDED_BY(wakelock_mutex) = -1;
bool wakelock_ready TAVRIK_GUARDED_BY(wakelock_mutex) = false;

bool keep_name(const char* name) TAVRIK_REQUIRES(wakelock_mutex) {
    wl_name = static_cast<char*>(calloc(1, kNameSize));
    if (!wl_name) {
        qsprintf("diag: In %s, cannot allocate memory for wl_name\n", "diag_wakelock_init");
        return false;
    }
    strncpy(wl_name, name, kNameSize - 1);
    return true;
}

bool open_files() TAVRIK_REQUIRES(wakelock_mutex) {
    fd_wakelock = open("/sys/power/wake_lock", O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd_wakelock < 0) {
        qsprintf("diag: could not open wakelock file, errno: %d\n", errno);
        return false;
    }
    fd_wakeunlock = open("/sys/power/wake_unlock", O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd_wakeunlock < 0) {
        qsprintf("diag: could not open wake-unlock file, errno: %d\n", errno);
        return false;
    }
    return true;
}

void close_file(int& handle) {
    if (handle >= 0) close(handle);
    handle = -1;
}

void give_up() TAVRIK_REQUIRES(wakelock_mutex) {
    close_file(fd_wakelock);
    close_file(fd_wakeunlock);
    free(wl_name);
    wl_name = nullptr;
    wakelock_ready = false;
}

bool write_name(int handle) TAVRIK_REQUIRES(wakelock_mutex) {
    const size_t length = strlen(wl_name);
    return write(handle, wl_name, length) == static_cast<ssize_t>(length);
}

}  // namespace

void diag_wakelock_init(const char* name) {
    StaticMutexLock guard(wakelock_mutex);
    if (!name || !*name) {
        qsprintf("diag: In %s, invalid wakelock name\n", "diag_wakelock_init");
        return;
    }
    if (wakelock_ready) {
        if (strncmp(wl_name, name, kNameSize) == 0) return;
        qsprintf("diag: %s, already holding another wakelock in this process\n",
                 "diag_wakelock_init");
        return;
    }
    if (!keep_name(name) || !open_files()) {
        give_up();
        return;
    }
    wakelock_ready = true;
}

void diag_wakelock_acquire(void) {
    StaticMutexLock guard(wakelock_mutex);
    if (!wakelock_ready) {
        qsprintf("diag: %s, wakelock files are not initialized\n", "diag_wakelock_acquire");
        return;
    }
    if (!write_name(fd_wakelock)) qsprintf("diag: error writing to wakelock file");
}

void diag_wakelock_release(void) {
    StaticMutexLock guard(wakelock_mutex);
    if (!wakelock_ready) {
        qsprintf("diag: %s, wakelock files are not initialized\n", "diag_wakelock_release");
        return;
    }
    if (!write_name(fd_wakeunlock)) qsprintf("diag: error writing to wake unlock file");
}

void diag_wakelock_destroy(void) {
    StaticMutexLock guard(wakelock_mutex);
    if (!wakelock_ready) {
        qsprintf("diag: %s, wakelock files are not initialized\n", "diag_wakelock_destroy");
        return;
    }
    give_up();
}

int diag_is_wakelock_init(void) {
    StaticMutexLock guard(wakelock_mutex);
    return wakelock_ready ? 1 : 0;
}

}  // namespace tavrik_diag_lsm
