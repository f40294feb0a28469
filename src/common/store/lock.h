// The lock of one database file: against the other threads of this process by a mutex per path,
// against other processes by flock() on the file itself (Berkeley DB takes none, and no extra file
// appears beside the databases).
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "owned.h"
#include "store.h"

class StoreLock {
public:
    // Waits for the mutex, then for flock, until one holder has kept it for too long: the daemon
    // goes on without it then, as such a holder must not stop heartbeats. A missing file cannot be
    // flock'ed: its directory is, so that one process at a time creates. Any thread; logs nothing.
    explicit StoreLock(const char* path);
    ~StoreLock();
    StoreLock(StoreLock&&) = default;
    StoreLock& operator=(StoreLock&&) = delete;

    const std::string& path() const { return path_; }

    // Whether the file was there when it was locked.
    bool exists() const { return exists_; }

    // Why the file, which is there, could not be opened, or 0.
    int error() const { return error_; }

    // Whether another process kept its lock too long, and this one is not the daemon.
    bool refused() const { return given_up_ && store_use() != StoreUse::SERVE; }

    // To be called before the file is changed: logs, once, that this happens without the lock.
    void announce_change();

    // Whether the path still names the file that was there when it was locked.
    bool is_current() const;

    // The locked file, or its directory when the file was missing; -1 without a directory and after
    // an error.
    int fd() const { return file_.get(); }

    // Locks the file that is in place now, after the holder created or replaced it.
    void relock();

    // Gives the lock up before its destructor does.
    void release();

private:
    struct PathMutex;
    static std::shared_ptr<PathMutex> mutex_of(const std::string& path);
    bool open_current();

    std::string path_;
    bool exists_ = false;
    int error_ = 0;
    bool given_up_ = false;  // another process kept its lock too long
    bool announced_ = false;
    std::shared_ptr<PathMutex> shared_;  // lives as long as any thread wants this path
    std::unique_lock<std::mutex> mutex_;
    OwnedFd file_;
};

// Marks the flock that `fd` has just been given with the present moment, so that those who wait for
// it can tell one holder from the next.
void mark_flock(int fd);
