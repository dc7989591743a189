#include "hardware/resource_lock.h"

#include <chrono>
#include <iostream>
#include <limits>
#include <stdexcept>

#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/sync/named_recursive_mutex.hpp>

std::mutex mutex_resouce_lock;

namespace bip = boost::interprocess;

ResourceLocker_boost::ResourceLocker_boost(std::string lock_name)
    : ResourceLocker(std::move(lock_name)) {
    validName();
    try {
        _mutex = std::make_unique<bip::named_recursive_mutex>(bip::open_or_create, name.c_str());
    } catch (const bip::interprocess_exception&) {
        throw std::runtime_error("Cannot open mutex");
    }
}

ResourceLocker_boost::~ResourceLocker_boost() = default;

void ResourceLocker_boost::validName() const {
    if (name.empty()) throw std::runtime_error("Cannot create locker object without name");
}

bool ResourceLocker_boost::acquireLock(unsigned long timeout) {
    bool taken = false;
    try {
        if (timeout == std::numeric_limits<unsigned long>::max()) {
            _mutex->lock();
            taken = true;
        } else {
            taken = _mutex->timed_lock(std::chrono::system_clock::now() +
                                       std::chrono::milliseconds(timeout));
        }
    } catch (const bip::interprocess_exception&) {
        return false;
    }
    if (taken) {
        std::lock_guard<std::mutex> guard(_depth_mutex);
        ++_depth[std::this_thread::get_id()];
    }
    return taken;
}

bool ResourceLocker_boost::releaseLock() {
    {
        std::lock_guard<std::mutex> guard(_depth_mutex);
        auto it = _depth.find(std::this_thread::get_id());
        if (it == _depth.end()) return false;
        if (--it->second == 0) _depth.erase(it);
    }
    _mutex->unlock();
    return true;
}

ResourceLock* ResourceLock::get_instance() {
    // Never destroyed: threads may still take locks while statics are torn down.
    static ResourceLock* instance = nullptr;
    std::lock_guard<std::mutex> guard(mutex_resouce_lock);
    if (!instance) instance = new ResourceLock();
    return instance;
}

void ResourceLock::use_ipc_lock() { _use_ipc = true; }

// Console lines are only interleaved by our own threads, so that lock never
// needs to cross processes.
bool ResourceLock::_in_process(const std::string& name) const {
    return !_use_ipc || name == "ConsoleLock";
}

int ResourceLock::lock(const std::string& name) {
    if (_in_process(name)) {
        {
            std::lock_guard<std::mutex> guard(mutex_resouce_lock);
            if (_held.insert(name).second) return 0;
        }
        // Polling lock, not hardware time: a real pause, never a virtual one.
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        return 1;
    }

    std::shared_ptr<ResourceLocker_boost> locker;
    {
        std::lock_guard<std::mutex> guard(mutex_resouce_lock);
        auto& entry = _ipc_lockers[name];
        if (!entry) {
            try {
                entry = std::make_shared<ResourceLocker_boost>(name);
            } catch (...) {
                _ipc_lockers.erase(name);
                throw;
            }
        }
        locker = entry;
    }
    return locker->acquireLock(1) ? 0 : 1;
}

int ResourceLock::unlock(const std::string& name) {
    if (_in_process(name)) {
        std::lock_guard<std::mutex> guard(mutex_resouce_lock);
        if (_held.erase(name) == 1) return 1;
        std::cerr << "Error: Calling unlock on a resource that is not locked. Resource: " << name
                  << std::endl;
        throw std::runtime_error("Error: Calling unlock on a resource that is not locked.");
    }

    std::shared_ptr<ResourceLocker_boost> locker;
    {
        std::lock_guard<std::mutex> guard(mutex_resouce_lock);
        auto it = _ipc_lockers.find(name);
        if (it == _ipc_lockers.end()) throw std::runtime_error("Error: Unlock called without locking.");
        locker = it->second;
    }
    if (!locker->releaseLock()) throw std::runtime_error("Error: Unlock failed.");
    return 1;
}

NamedLockGuard::NamedLockGuard(std::string name)
    : NamedLockGuard(*ResourceLock::get_instance(), std::move(name)) {}

NamedLockGuard::NamedLockGuard(ResourceLock& locks, std::string name)
    : _locks(locks), _name(std::move(name)) {
    while (_locks.lock(_name) != 0) {
    }
}

NamedLockGuard::~NamedLockGuard() { _locks.unlock(_name); }
