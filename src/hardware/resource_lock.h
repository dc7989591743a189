// Named locks: any thread may take a lock by its name without being handed
// an object. Two backends sit behind one ResourceLock: a set of held names for
// the threads of this process, and named recursive mutexes shared between
// processes.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace boost::interprocess {
class named_recursive_mutex;
}

// Guards the set of held names and the creation of the singleton.
extern std::mutex mutex_resouce_lock;

class ResourceLocker {
public:
    explicit ResourceLocker(std::string name) : name(std::move(name)) {}
    // timeout in milliseconds; all ones waits for ever.
    virtual bool acquireLock(unsigned long timeout) = 0;
    virtual bool releaseLock() = 0;
    virtual ~ResourceLocker() = default;

protected:
    std::string name;
};

class ResourceLocker_boost : public ResourceLocker {
public:
    // Opens or creates the named mutex; throws std::runtime_error for an
    // empty name or a mutex that can't be opened.
    explicit ResourceLocker_boost(std::string name);
    ~ResourceLocker_boost() override;

    bool acquireLock(unsigned long timeout) override;
    // False when the calling thread doesn't hold the mutex.
    bool releaseLock() override;

private:
    void validName() const;

    std::unique_ptr<boost::interprocess::named_recursive_mutex> _mutex;
    // Unlocking a pthread mutex one doesn't own is undefined, so ownership
    // depth is tracked here to refuse such a release instead.
    std::mutex _depth_mutex;
    std::map<std::thread::id, unsigned> _depth;
};

class ResourceLock {
public:
    static ResourceLock* get_instance();

    // Switches to the cross-process backend (except for "ConsoleLock").
    void use_ipc_lock();

    // 0 when the lock was taken, non-zero when not; callers retry. A busy
    // in-process lock costs the caller a 2 ms pause before the answer.
    int lock(const std::string& name);
    // Throws std::runtime_error when the name isn't held.
    int unlock(const std::string& name);

    // Public so tests can have an instance whose mode doesn't leak into the
    // process-wide one; the service uses get_instance().
    ResourceLock() = default;
    ResourceLock(const ResourceLock&) = delete;
    ResourceLock& operator=(const ResourceLock&) = delete;

private:
    bool _in_process(const std::string& name) const;

    std::set<std::string> _held;
    std::atomic<bool> _use_ipc{false};
    std::map<std::string, std::shared_ptr<ResourceLocker_boost>> _ipc_lockers;
};

// Takes a named lock for the life of the guard, so every path unlocks.
//
// The in-process lock is NOT re-entrant: a thread that guards a name it
// already holds waits for ever.
class NamedLockGuard {
public:
    explicit NamedLockGuard(std::string name);
    NamedLockGuard(ResourceLock& locks, std::string name);
    ~NamedLockGuard();

    NamedLockGuard(const NamedLockGuard&) = delete;
    NamedLockGuard& operator=(const NamedLockGuard&) = delete;

private:
    ResourceLock& _locks;
    std::string _name;
};
